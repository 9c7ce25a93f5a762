#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Clock.h"
#include "platform/Log.h"

namespace kvx::rvd {

/// A line of the log that others can cause as often as they like: written at most once a minute,
/// with how many were left out since the one before.
class RareWarning {
  public:
    /// `log` must outlive this object.
    explicit RareWarning(platform::Log& log) : log_(log) {}

    /// Throws `std::bad_alloc`.
    void warn(const std::string& what, platform::Milliseconds now) {
        ++due_;
        if (at_ && now - *at_ < kPauseMs) return;
        const std::string others =
            due_ == 1 ? "" : "; " + std::to_string(due_ - 1) + " more since the last such line";
        log_.warning(what + others);
        at_ = now;
        due_ = 0;
    }

  private:
    static constexpr platform::Milliseconds kPauseMs = 60'000;

    platform::Log& log_;
    std::optional<platform::Milliseconds> at_;  // of the last line
    std::uint64_t due_ = 0;                     // lines, since then
};

}  // namespace kvx::rvd
