#pragma once

#include <atomic>
#include <cstdint>

#include "platform/Export.h"

namespace kvx::platform {

/// A point or a span of time in milliseconds. Points are comparable only when both come from
/// `monotonicMs`.
using Milliseconds = std::int64_t;

/// The clock of timers, time-outs and intervals: milliseconds of the system's monotonic clock. When
/// that clock cannot be read, the wall clock replaces it until the process ends. While a
/// `ManualClock` exists, returns its time. Any thread; safe in a signal handler.
[[nodiscard]] KVX_API Milliseconds monotonicMs() noexcept;

/// Seconds since the epoch, from the wall clock. A `ManualClock` does not change it. Any thread.
[[nodiscard]] KVX_API std::int64_t wallSeconds() noexcept;

/// Milliseconds since the epoch, from the wall clock. A `ManualClock` does not change it. Any
/// thread.
[[nodiscard]] KVX_API std::int64_t wallMilliseconds() noexcept;

/// Nanoseconds for which a processor has worked for the calling thread.
[[nodiscard]] KVX_API std::int64_t threadCpuNanoseconds() noexcept;

/// Suspends the calling thread for `duration`; returns at once when it is not positive. Signals do
/// not shorten it. With a `ManualClock` whose waits advance, steps the clock and returns at once.
/// Any thread.
KVX_API void sleepMs(Milliseconds duration) noexcept;

/// Replaces the process's monotonic clock while it exists, so that a test steps time by hand.
///
/// At most one exists. Construct and destroy it on the test's main thread while no other thread
/// reads the clock; any thread may step it.
class KVX_API ManualClock {
  public:
    /// How a wait with a time-out (`sleepMs`, `waitSocket`, `PollSet::wait`) behaves.
    enum class Waits {
        /// When nothing is ready the clock is stepped by the time-out and the wait ends as timed
        /// out, at once.
        Advance,
        /// The wait blocks in real time, as without a manual clock; only `advance` steps the clock.
        Block,
    };

    explicit ManualClock(Milliseconds start = 1'000'000, Waits waits = Waits::Advance) noexcept;
    ~ManualClock();
    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    [[nodiscard]] Milliseconds now() const noexcept { return now_.load(); }
    void advance(Milliseconds step) noexcept { now_ += step; }
    void setWaits(Waits waits) noexcept { waits_ = waits; }

    /// Steps the current manual clock by `timeout` when its waits advance. Returns false, and does
    /// nothing, when the caller has to wait in real time.
    static bool advanceInsteadOfWaiting(Milliseconds timeout) noexcept;

    /// True while there is a manual clock whose waits advance.
    [[nodiscard]] static bool waitsAdvance() noexcept;

  private:
    std::atomic<Milliseconds> now_;
    std::atomic<Waits> waits_;
};

/// Reads a clock into `now`; false when it cannot be read.
using ClockReader = bool (*)(Milliseconds& now);

/// Replaces the reader of the monotonic clock, so that a test can make it fail, and clears an
/// earlier failure. Null restores the system's. Test's main thread only.
KVX_API void setMonotonicReaderForTests(ClockReader reader) noexcept;

}  // namespace kvx::platform
