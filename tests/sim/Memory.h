#pragma once

#include <cstdint>
#include <utility>

namespace kvx::sim {

/// What one simulated program has allocated, and which of its allocations fails.
struct Account {
    std::int64_t bytes = 0;
    long newsBeforeFailure = -1;  ///< successful ones before the next failure; negative: none fails
};

/// The account of the code that runs now; null for the simulation's own code.
inline Account* charged = nullptr;

/// Charges the allocations of a scope to another account; `nullptr` is the simulation.
class Charge {
  public:
    explicit Charge(Account* account) : before_(std::exchange(charged, account)) {}
    Charge(const Charge&) = delete;
    Charge& operator=(const Charge&) = delete;
    ~Charge() { charged = before_; }

    [[nodiscard]] Account* before() const { return before_; }

  private:
    Account* before_;
};

/// The simulation's own code in a function that the programs call.
struct Harness : Charge {
    Harness() : Charge(nullptr) {}
};

}  // namespace kvx::sim
