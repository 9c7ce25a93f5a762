#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <limits>

#include "platform/Clock.h"

namespace kvx::event {

/// A point of the monotonic clock as timers keep it: whole seconds and 0 to 999 milliseconds.
struct TimeValue {
    std::int32_t seconds = 0;
    std::int32_t milliseconds = 0;

    friend constexpr bool operator==(const TimeValue&, const TimeValue&) = default;
    friend constexpr std::strong_ordering operator<=>(const TimeValue& a,
                                                      const TimeValue& b) noexcept {
        return a.seconds == b.seconds ? a.milliseconds <=> b.milliseconds : a.seconds <=> b.seconds;
    }
};

/// The latest point that a time value holds.
inline constexpr TimeValue kLatestTime{std::numeric_limits<std::int32_t>::max(), 999};

[[nodiscard]] constexpr platform::Milliseconds toMilliseconds(TimeValue time) noexcept {
    return platform::Milliseconds{time.seconds} * 1000 + time.milliseconds;
}

/// Converts a non-negative point; at most `kLatestTime`.
[[nodiscard]] constexpr TimeValue toTimeValue(platform::Milliseconds time) noexcept {
    const platform::Milliseconds held = std::min(time, toMilliseconds(kLatestTime));
    return {static_cast<std::int32_t>(held / 1000), static_cast<std::int32_t>(held % 1000)};
}

/// A caller's interval, cut at 2^31 - 1 ms (24 days).
[[nodiscard]] constexpr platform::Milliseconds limitedMs(unsigned long interval) noexcept {
    constexpr unsigned long kLongest = std::numeric_limits<std::int32_t>::max();
    return static_cast<platform::Milliseconds>(std::min(interval, kLongest));
}

[[nodiscard]] inline TimeValue timeNow() noexcept {
    return toTimeValue(platform::monotonicMs());
}

/// `start` plus an interval, `kLatestTime` at most.
[[nodiscard]] constexpr TimeValue after(TimeValue start, unsigned long intervalMs) noexcept {
    constexpr auto kLatest = static_cast<unsigned long>(toMilliseconds(kLatestTime));
    const auto interval = static_cast<platform::Milliseconds>(std::min(intervalMs, kLatest));
    return toTimeValue(toMilliseconds(start) + interval);
}

/// The milliseconds from `from` to `to`; negative when `to` is earlier.
[[nodiscard]] constexpr platform::Milliseconds between(TimeValue from, TimeValue to) noexcept {
    return toMilliseconds(to) - toMilliseconds(from);
}

}  // namespace kvx::event
