#pragma once

#include <zlib.h>

namespace kvx {

/// The zlib release that the compression streams are written for. zlib starts a stream when the
/// first character agrees with its own.
inline constexpr const char* kZlibVersion = "1.2.1";

/// zlib reads its input through a pointer to non-const, and changes nothing there.
inline Bytef* zlibInput(const void* data) {
    return const_cast<Bytef*>(static_cast<const Bytef*>(data));
}

}  // namespace kvx
