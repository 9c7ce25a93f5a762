#pragma once

#include <zlib.h>

namespace kvx {

/// The zlib version of the compression streams. zlib only compares the first character with its
/// own.
inline constexpr const char* kZlibVersion = "1.2.1";

/// zlib takes its input as a pointer to non-const, but does not change it.
inline Bytef* zlibInput(const void* data) {
    return const_cast<Bytef*>(static_cast<const Bytef*>(data));
}

}  // namespace kvx
