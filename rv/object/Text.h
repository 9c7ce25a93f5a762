#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

namespace kvx::detail {

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};

/// An owned text; null when there is none or memory ran out.
using Text = std::unique_ptr<char, FreeText>;

inline Text copyText(const char* text) {
    return Text(text == nullptr ? nullptr : strdup(text));
}

}  // namespace kvx::detail
