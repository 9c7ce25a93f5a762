#pragma once

#include "mom/config/CVekRvdCfgParser.h"
#include "mom/config/DaemonAddress.h"

namespace kvx {

/// The same as a session is opened with; null is the bus's own default.
struct SessionAddress {
    const char* service = nullptr;
    const char* network = nullptr;
    const char* daemon = nullptr;
};

/// Reads the configuration file with `parser` and puts what `address` says in place of its values.
/// A file that is missing or cannot be parsed says nothing. The texts belong to the parser.
SessionAddress readConfiguration(CVekRvdCfgParser& parser, const DaemonAddress& address);

}  // namespace kvx
