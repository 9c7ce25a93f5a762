#pragma once

#include <cstddef>
#include <memory>

#include "rvd/Row.h"

namespace kvx::rvd {

/// What an inquiry is answered with, written in pieces of bounded work. Between pieces everything
/// may change: a row is true when it is written.
class Report {
  public:
    Report() = default;
    virtual ~Report() = default;
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    /// Adds what comes next to `part`, until it has `kPartBytes` or the work has been enough for
    /// one piece. False when nothing is left. Throws `std::bad_alloc`.
    [[nodiscard]] virtual bool write(Row& part) = 0;

    static constexpr std::size_t kPartBytes = 16'000;
    /// Rows looked at for one piece.
    static constexpr std::size_t kLookedAtOnce = 256;
};

}  // namespace kvx::rvd
