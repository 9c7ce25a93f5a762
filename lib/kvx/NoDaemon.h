#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

#include "kvx/Error.h"
#include "mom/net/CVekRvNet.h"

namespace kvx::detail {

inline std::string connecting(const DaemonAddress& address) {
    return "connecting to the bus daemon at " + address.daemon;
}

/// A daemon without a host is the machine's own, which the session tries to start.
inline const char* whyNobody(std::string_view daemon) {
    if (!daemon.starts_with("tcp:")) return "the address is not of the form tcp:[host:]port";
    if (daemon.find(':') != daemon.rfind(':')) {
        return "nobody answers there; none is started, since the address names a host";
    }
    const char* const wish = std::getenv("KVX_START_DAEMON");
    if (wish != nullptr && std::string_view(wish) == "0") {
        return "nobody answers there; none is started, since KVX_START_DAEMON is 0";
    }
    return "nobody answers there; a program rvd to start was looked for beside this one, in "
           "$VEK_HOME/bin and on the PATH";
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
