#pragma once

#include <string>

class CVekRvdCfgParser;

namespace kvx {

/// Where the bus is. An empty text leaves the choice to the daemon configuration file, and where
/// that says nothing, to the bus.
struct DaemonAddress {
    std::string service;
    std::string network;
    std::string daemon;
};

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
