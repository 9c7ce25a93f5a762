#pragma once

#include <string>

#include "kvx/Error.h"
#include "mom/net/CVekRvNet.h"
#include "rv/rv.h"

namespace kvx::detail {

inline std::string connecting(const DaemonAddress& address) {
    return "connecting to the bus daemon at " + address.daemon;
}

/// Nobody was reached at the address of `net`, which this thread has built just now. An error in
/// the configuration file, which may be why it is not the address that was meant, is told as well.
inline Error noDaemon(CVekRvNet& net) {
    const DaemonAddress address = net.RRNAddress();
    std::string why = rv_ConnectReport();
    const std::string misread = net.m_cfgParser.RRCPGetError();
    if (!misread.empty()) why += "; " + misread;
    return {Errc::NoDaemon, why, connecting(address)};
}

}  // namespace kvx::detail
