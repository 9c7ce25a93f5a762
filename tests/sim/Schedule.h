#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/sim/World.h"

namespace kvx::sim {

/// What happens in a run, beside what the programs do by themselves.
enum class Deed : std::uint8_t {
    // Done by a client.
    Join,
    Leave,
    Listen,   ///< `a`: the pattern
    Crowd,    ///< `b` listens, which `a` chooses
    Cancel,   ///< `a`: which listener
    Publish,  ///< `a`: the subject; `b`: how many
    Request,
    Arm,       ///< `a`: what the next callback does
    FailNext,  ///< the `a % 20`th allocation from now on fails
    Sleep,     ///< `b` ms, in which the client does nothing
    // Done to a client.
    Freeze,
    StallUp,
    StallDown,
    Cut,
    // Done to the daemon or to all.
    Refuse,
    FailDaemon,
    FreezeDaemon,
    StopDaemon,
    KillDaemon,
    Rest,  ///< `b` seconds pass
    Count
};

struct Action {
    Milliseconds at = 0;  ///< after the start
    Deed deed = Deed::Rest;
    unsigned client = 0;
    unsigned a = 0;
    unsigned b = 0;

    [[nodiscard]] std::string text() const;
};
using Schedule = std::vector<Action>;

/// The schedule of a seed.
[[nodiscard]] Schedule scheduleOf(std::uint64_t seed);
/// Likewise, for so many clients.
[[nodiscard]] Schedule scheduleOf(std::uint64_t seed, unsigned clients);

struct Outcome {
    std::string fault;  ///< empty: every invariant held
    std::string trace;  ///< equal for equal runs
};

/// Runs a schedule with the seed's daemon, clients and network in a process of its own, so that a
/// crash is an outcome too. `verbose` prints what happens to standard error.
[[nodiscard]] Outcome run(std::uint64_t seed, const Schedule& schedule, bool verbose = false);

/// The shortest part of a failing schedule that can be found by leaving actions out.
[[nodiscard]] Schedule shrink(Schedule schedule,
                              const std::function<bool(const Schedule&)>& stillFails);

}  // namespace kvx::sim
