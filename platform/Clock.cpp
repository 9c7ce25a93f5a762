// The monotonic clock and its two test hooks.
//
// All time measurement uses `monotonicMs`. It returns a manual clock's time if there is one, else
// the system's monotonic clock. Once that has failed it reads the wall clock until the process
// ends: switching back would make timers jump twice.

#include "platform/Clock.h"

#include <cerrno>
#include <ctime>

namespace kvx::platform {

namespace {

std::atomic<ManualClock*> manualClock = nullptr;
std::atomic<bool> useWallClock = false;

bool readClock(clockid_t clock, Milliseconds& now) noexcept {
    timespec time{};
    if (clock_gettime(clock, &time) != 0) return false;
    now = Milliseconds{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
    return true;
}

bool readSystemMonotonic(Milliseconds& now) noexcept {
    return readClock(CLOCK_MONOTONIC, now);
}

std::atomic<ClockReader> monotonicReader = readSystemMonotonic;

}  // namespace

Milliseconds monotonicMs() noexcept {
    if (const ManualClock* clock = manualClock.load(std::memory_order_acquire)) return clock->now();
    Milliseconds now = 0;
    if (!useWallClock.load(std::memory_order_relaxed)) {
        if (monotonicReader.load(std::memory_order_relaxed)(now)) return now;
        useWallClock = true;
    }
    return wallMilliseconds();
}

std::int64_t wallSeconds() noexcept {
    return wallMilliseconds() / 1000;
}

std::int64_t wallMilliseconds() noexcept {
    Milliseconds now = 0;
    readClock(CLOCK_REALTIME, now);
    return now;
}

std::int64_t threadCpuNanoseconds() noexcept {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

void sleepMs(Milliseconds duration) noexcept {
    if (duration <= 0 || ManualClock::advanceInsteadOfWaiting(duration)) return;
    timespec left{static_cast<time_t>(duration / 1000),
                  static_cast<long>(duration % 1000 * 1'000'000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

ManualClock::ManualClock(Milliseconds start, Waits waits) noexcept : now_(start), waits_(waits) {
    manualClock.store(this, std::memory_order_release);
}

ManualClock::~ManualClock() {
    manualClock = nullptr;
}

bool ManualClock::advanceInsteadOfWaiting(Milliseconds timeout) noexcept {
    ManualClock* clock = manualClock.load(std::memory_order_acquire);
    if (clock == nullptr || clock->waits_ != Waits::Advance) return false;
    clock->advance(timeout);
    return true;
}

bool ManualClock::waitsAdvance() noexcept {
    const ManualClock* clock = manualClock.load(std::memory_order_acquire);
    return clock != nullptr && clock->waits_ == Waits::Advance;
}

void setMonotonicReaderForTests(ClockReader reader) noexcept {
    monotonicReader = reader == nullptr ? readSystemMonotonic : reader;
    useWallClock = false;
}

}  // namespace kvx::platform
