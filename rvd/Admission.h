#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace kvx::rvd {

/// The IPv4 addresses that agree with one in their first bits.
struct Network {
    std::uint32_t address = 0;  ///< host byte order
    std::uint32_t mask = 0;     ///< the bits that must agree

    [[nodiscard]] bool contains(std::uint32_t other) const {
        return ((address ^ other) & mask) == 0;
    }
};

[[nodiscard]] inline bool containAny(const std::vector<Network>& networks, std::uint32_t address) {
    return std::ranges::any_of(networks,
                               [=](const Network& network) { return network.contains(address); });
}

/// Who may be a session. An empty list admits everybody.
struct Admission {
    std::vector<Network> networks;     ///< of the addresses of TCP clients
    std::vector<std::uint32_t> users;  ///< their ids: of the processes at unix sockets

    [[nodiscard]] bool admitsAddress(std::uint32_t address) const {
        return networks.empty() || containAny(networks, address);
    }
    [[nodiscard]] bool admitsUser(std::uint32_t user) const {
        return users.empty() || std::ranges::find(users, user) != users.end();
    }
};

}  // namespace kvx::rvd
