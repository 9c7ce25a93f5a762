#pragma once

namespace kvx {

/// The zlib release that the compression streams are written for. zlib starts a stream when the
/// first character agrees with its own.
inline constexpr const char* kZlibVersion = "1.2.1";

}  // namespace kvx
