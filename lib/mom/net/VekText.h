#pragma once

#include <cstring>
#include <memory>

#include "rv/message/RvDatum.h"

/// Texts that the middleware keeps or hands out come from `malloc` and go to `free`.
namespace kvx {

/// An owned, NUL-terminated text; null means that there is none.
using Text = std::unique_ptr<char, FreeDeleter>;

/// A copy of `text`; null for null, and when there is no memory.
inline Text copyText(const char* text) {
    return Text(text != nullptr ? strdup(text) : nullptr);
}

}  // namespace kvx
