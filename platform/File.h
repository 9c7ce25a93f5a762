#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace kvx::platform {

/// True when this process may read the file. Any thread.
[[nodiscard]] KVX_API bool isReadable(const std::string& path) noexcept;

/// True when the path is a regular file that this process may execute. Any thread.
[[nodiscard]] KVX_API bool isExecutable(const std::string& path) noexcept;

/// Occupies the descriptors of the standard streams that the process was started without, so that
/// no file or socket gets their numbers. Using such a stream still fails. Call it before anything
/// is opened.
KVX_API void reserveStandardStreams() noexcept;

/// Writes all of `text` to standard output and flushes it. Returns an empty text, or the system's
/// text of the error. Any thread.
[[nodiscard]] KVX_API std::string writeOutput(std::string_view text);

/// True when the stream is a terminal. Any thread.
[[nodiscard]] KVX_API bool isTerminal(std::FILE* stream) noexcept;

/// The height of the terminal in lines; 0 when the stream is not a terminal or the height is
/// unknown. Any thread.
[[nodiscard]] KVX_API std::size_t terminalHeight(std::FILE* stream) noexcept;

}  // namespace kvx::platform
