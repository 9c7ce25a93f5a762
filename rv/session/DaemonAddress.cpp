#include "rv/session/DaemonAddress.h"

#include <cstdlib>
#include <string>
#include <string_view>

namespace kvx::session {

namespace {
constexpr std::string_view kScheme = "tcp:";
constexpr std::size_t kMaxHostLength = 127;  // characters; longer names are cut
}  // namespace

std::optional<DaemonAddress> parseDaemon(const char* text) {
    const std::string_view daemon(text);
    if (!daemon.starts_with(kScheme)) return std::nullopt;
    const std::size_t portColon = daemon.rfind(':');
    DaemonAddress address;
    address.endpoint.port =
        static_cast<std::uint16_t>(std::strtol(text + portColon + 1, nullptr, 10));
    if (portColon < kScheme.size()) return address;
    const std::string host(
        daemon.substr(kScheme.size(), portColon - kScheme.size()).substr(0, kMaxHostLength));
    if (host.empty()) return std::nullopt;
    const auto resolved = platform::resolveHost(host);
    if (!resolved) return std::nullopt;
    address.local = *resolved == 0;
    if (!address.local) address.endpoint.address = *resolved;
    return address;
}

}  // namespace kvx::session
