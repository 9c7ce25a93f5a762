#pragma once

#include <string>

namespace kvx {

/// The address of the bus. For an empty text the daemon configuration file decides, and without an
/// entry there the bus.
struct DaemonAddress {
    std::string service{};
    std::string network{};
    std::string daemon{};
};

}  // namespace kvx
