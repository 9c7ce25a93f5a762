#pragma once

#include "mom/config/CVekRvdCfgParser.h"
#include "mom/config/DaemonAddress.h"

namespace kvx {

/// The address for opening a session; null is the bus's default.
struct SessionAddress {
    const char* service = nullptr;
    const char* network = nullptr;
    const char* daemon = nullptr;
};

/// Reads the configuration file with `parser` and overrides its values by the non-empty ones of
/// `address`. A missing or unreadable file has no values. The texts belong to the parser.
SessionAddress readConfiguration(CVekRvdCfgParser& parser, const DaemonAddress& address);

}  // namespace kvx
