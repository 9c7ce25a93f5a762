#pragma once

#include <optional>
#include <string>
#include <string_view>

/// What people write for the address of a daemon, as far as clients and daemon read it alike.
namespace kvx::wire {

/// The forms of an address, for messages to people.
inline constexpr const char* kDaemonForms = "tcp:[host:]port or unix:/path";

/// The path in "unix:/path", of whatever form; nothing when the text is no address of a unix
/// socket. A view of `text`.
[[nodiscard]] std::optional<std::string_view> unixPathOf(std::string_view text);

/// Why no daemon can listen at `path`: it is not absolute, too long, or has a space or a control
/// character, which no line of a log or a configuration holds well. Empty when one can.
[[nodiscard]] std::string problemWithUnixPath(std::string_view path);

}  // namespace kvx::wire
