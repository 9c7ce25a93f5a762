#pragma once

#include <string>

namespace kvx {

/// Where the bus is. An empty text leaves the choice to the daemon configuration file, and where
/// that says nothing, to the bus.
struct DaemonAddress {
    std::string service;
    std::string network;
    std::string daemon;
};

}  // namespace kvx
