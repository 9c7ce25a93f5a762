#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

/// Texts that the middleware keeps or hands out come from `malloc` and go to `free`.
namespace kvx {

struct FreeDeleter {
    void operator()(void* block) const { std::free(block); }
};

/// An owned, NUL-terminated text; null means that there is none.
using Text = std::unique_ptr<char, FreeDeleter>;

/// A copy of `text`; null for null, and when there is no memory.
inline Text copyText(const char* text) {
    return Text(text != nullptr ? strdup(text) : nullptr);
}

}  // namespace kvx
