#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "tests/sim/Fibre.h"
#include "tests/sim/Ledger.h"
#include "tests/sim/Memory.h"
#include "tests/sim/Network.h"

namespace kvx::sim {

using platform::Milliseconds;
using Ready = std::function<bool()>;

/// A seeded sequence of numbers.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    /// 0 to `bound` - 1.
    std::uint64_t operator()(std::uint64_t bound);
    bool oneIn(std::uint64_t n) { return (*this)(n) == 0; }
    template <class Choice>
    auto among(const Choice& choice) -> decltype(choice[0]) {
        return choice[(*this)(std::size(choice))];
    }

  private:
    std::uint64_t state_;
};

/// One simulated program.
struct Program {
    unsigned number;
    std::string name;
    Account account;
    std::unique_ptr<Fibre> fibre;
    // What it waits for.
    const Ready* ready = nullptr;
    Milliseconds until = 0;
    Milliseconds frozenUntil = 0;
};

/// The simulated machine room: programs, of which one runs at a time, the network between them, and
/// a clock that steps when nobody can go on. Everything follows from the seed and from what
/// `Simulation` does between the steps.
///
/// There is one world in a process, and it is not torn down: the process ends with it.
class World {
  public:
    explicit World(std::uint64_t seed) : random(seed) {}

    /// Starts a program, whose allocations are charged to it.
    Program& start(std::string name, std::function<void()> body);

    /// Lets one program run, or steps the clock, at most to `limit`. False when the limit is
    /// reached.
    bool step(Milliseconds limit);
    void runUntil(Milliseconds limit) {
        while (step(limit)) {
        }
    }

    /// Suspends the running program until `ready()`, for at most `timeout` (negative: no limit).
    /// Returns `ready()`. Other programs may run although it is ready at once.
    bool wait(const Ready& ready, Milliseconds timeout);

    /// Nanoseconds of work, which pass at random from look to look.
    std::uint64_t processorTime();

    [[nodiscard]] Program& running() { return *running_; }
    [[nodiscard]] std::string whoIsLeft() const;

    /// Ends the process and reports the broken invariant.
    [[noreturn]] void fail(const std::string& what);
    void note(const std::string& what);

    Random random;
    Milliseconds now = 1'000'000;
    Network network;
    Ledger ledger;
    std::vector<std::unique_ptr<Program>> programs;
    std::uint64_t trace = 0;  ///< a hash of all that happened
    std::string counted;      ///< the last "counted:" line of the daemon
    bool verbose = false;
    std::uint64_t slowness = 8;  ///< one in so many looks at the clock finds that a slice is over
    int raised = 0;              ///< the signal that the daemon has not read yet; 0: none
    std::function<void(const std::string&)> report;

  private:
    Program* running_ = nullptr;
    std::uint64_t steps_ = 0;
    std::uint64_t processorTime_ = 0;
};

inline World* world = nullptr;

// What happens to the daemon's event loop (Uv.cpp).
/// The loop returns at once, as if the process had been killed: its sockets are reset.
void killDaemonLoop();
/// The `n`th allocation of the daemon's next reads fails.
void failDaemonRead(long n);

}  // namespace kvx::sim
