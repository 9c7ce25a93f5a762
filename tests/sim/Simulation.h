#pragma once

#include <cstdint>
#include <string>

#include "tests/sim/Schedule.h"

namespace kvx::sim {

struct Outcome {
    std::string fault;  ///< empty: every invariant held
    std::string trace;  ///< equal for equal runs
};

/// The schedule that the seed stands for.
[[nodiscard]] Schedule scheduleOf(std::uint64_t seed);

/// Runs a schedule with the seed's daemon, clients and network in a process of its own, so that a
/// crash is an outcome too. `verbose` prints what happens to standard error.
[[nodiscard]] Outcome run(std::uint64_t seed, const Schedule& schedule, bool verbose = false);

}  // namespace kvx::sim
