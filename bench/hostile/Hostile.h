#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvx::bench {

/// A way to trouble a daemon and everybody else on it.
struct Trouble {
    std::string name;
    std::string what;  ///< one line
};

[[nodiscard]] const std::vector<Trouble>& troubles();

/// `clients` connections do that until the process is killed. Prints "troubling" once all are at
/// it. Returns 2 when there is no such trouble.
int makeTrouble(const std::string& name, int clients, std::uint16_t port);

}  // namespace kvx::bench
