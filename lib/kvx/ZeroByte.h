#pragma once

#include <string_view>

namespace kvx::detail {

/// Whether `text` would end early as a C string, which names, subjects and texts become.
inline bool hasZero(std::string_view text) {
    return text.find('\0') != std::string_view::npos;
}

}  // namespace kvx::detail
