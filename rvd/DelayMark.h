#pragma once

#include <cstdint>

namespace kvx::rvd {

/// Who measures the delay of a message, and when it was received, in one word.
class DelayMark {
  public:
    /// Those who measure, one bit each.
    using Probes = std::uint16_t;

    /// Nobody measures it.
    DelayMark() = default;
    /// `receivedAt`: nanoseconds of a monotonic clock.
    DelayMark(Probes probes, std::int64_t receivedAt)
        : word_(static_cast<std::uint64_t>(receivedAt) << kProbeBits | probes) {}

    [[nodiscard]] explicit operator bool() const { return word_ != 0; }
    [[nodiscard]] Probes probes() const { return static_cast<Probes>(word_); }
    /// The time since then, up to three days, in nanoseconds.
    [[nodiscard]] std::uint64_t elapsed(std::int64_t now) const {
        const std::uint64_t shifted = static_cast<std::uint64_t>(now) << kProbeBits;
        return (shifted - (word_ >> kProbeBits << kProbeBits)) >> kProbeBits;
    }

  private:
    static constexpr unsigned kProbeBits = 16;

    std::uint64_t word_ = 0;
};

}  // namespace kvx::rvd
