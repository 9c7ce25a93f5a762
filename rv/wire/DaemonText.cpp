#include "rv/wire/DaemonText.h"

#include <algorithm>

#include "platform/UnixSocket.h"

namespace kvx::wire {

namespace {

constexpr std::string_view kUnixScheme = "unix:";

bool isBlank(char character) {
    constexpr unsigned char kDelete = 127;
    const auto byte = static_cast<unsigned char>(character);
    return byte <= ' ' || byte == kDelete;
}

}  // namespace

std::optional<std::string_view> unixPathOf(std::string_view text) {
    if (!text.starts_with(kUnixScheme)) return std::nullopt;
    return text.substr(kUnixScheme.size());
}

std::string problemWithUnixPath(std::string_view path) {
    if (!path.starts_with('/')) return "the path of a unix socket begins with /";
    if (path.size() > platform::kMaxUnixPath) {
        return "the path of a unix socket has at most " + std::to_string(platform::kMaxUnixPath) +
               " bytes, this one " + std::to_string(path.size());
    }
    if (std::ranges::any_of(path, isBlank)) {
        return "the path of a unix socket has no spaces and control characters";
    }
    return {};
}

}  // namespace kvx::wire
