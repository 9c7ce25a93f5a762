#pragma once

#include <string>

#include "platform/Export.h"

/// What a program says of its own command line before it ends, and its exit statuses. Any thread.
namespace kvx::platform {

inline constexpr int kFailureStatus = 1;
inline constexpr int kUsageStatus = 2;

/// Prints a text that was asked for, such as the help. Returns the exit status: 0, or
/// `kFailureStatus`, with a line on standard error, when it cannot be written.
[[nodiscard]] KVX_API int answer(const std::string& program, const std::string& text);

/// Writes "PROGRAM: ERROR" on standard error, as one short line that is safe to show. Returns
/// `kUsageStatus`.
[[nodiscard]] KVX_API int refuse(const std::string& program, const std::string& error);

}  // namespace kvx::platform
