#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <string_view>

#include "kvx/Error.h"
#include "mom/net/CVekRvNet.h"

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
inline const char* whyNobody(std::string_view daemon) {
    if (!daemon.starts_with("tcp:")) return "the address is not of the form tcp:[host:]port";
    if (daemon.find(':') != daemon.rfind(':')) {
        return "nobody answers there; none is started, since the address names a host";
    }
    return "nobody answers there; a program rvd to start was looked for beside this one, in "
           "$VEK_HOME/bin and on the PATH, unless KVX_START_DAEMON=0";
}

/// Nobody was reached at the address of `net`. An error in the configuration file, which may be why
/// it is not the address that was meant, is told as well.
inline Error noDaemon(CVekRvNet& net) {
    const DaemonAddress address = net.RRNAddress();
    std::string why = whyNobody(address.daemon);
    const std::string misread = net.m_cfgParser.RRCPGetError();
    if (!misread.empty()) why += "; " + misread;
    return {Errc::NoDaemon, why, connecting(address)};
}

}  // namespace kvx::detail
