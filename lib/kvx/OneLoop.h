#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "kvx/Error.h"
#include "mom/config/DaemonAddress.h"

namespace kvx::detail {

/// The claim of a client or a service on the loop of the process; null while another holds it. Any
/// thread.
inline std::shared_ptr<const void> claimLoop() {
    static std::atomic<bool> isTaken{false};
    if (isTaken.exchange(true)) return nullptr;
    return {static_cast<const void*>(&isTaken), [](const void*) { isTaken = false; }};
}

inline Error busy() {
    return {Errc::Busy, "a process has one client or service at a time", "open"};
}

inline std::string connecting(const DaemonAddress& address) {
    return "connecting to the bus daemon at " + address.daemon;
}

/// A daemon without a host is the machine's own, which the session tries to start.
inline Error noDaemon(const DaemonAddress& address) {
    const std::string& daemon = address.daemon;
    const bool isLocal = daemon.find(':') == daemon.rfind(':');
    const char* const why =
        !daemon.starts_with("tcp:") ? "the address is not of the form tcp:[host:]port"
        : isLocal ? "nobody answers there; a program rvd to start was looked for beside this one, "
                    "in $VEK_HOME/bin and on the PATH"
                  : "nobody answers there; none is started, since the address names a host";
    return {Errc::NoDaemon, why, connecting(address)};
}

}  // namespace kvx::detail
