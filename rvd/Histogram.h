#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace kvx::rvd {

/// Counts of numbers, in buckets whose width is at most 1/64 of what they hold: what is read from
/// it is within 1 % of what was added. Takes 19 KiB whatever it counts. Numbers from `kMost` on
/// count as `kMost`.
class Histogram {
  public:
    static constexpr std::uint64_t kMost = (std::uint64_t{1} << 42U) - 1;  ///< 73 minutes in ns

    void add(std::uint64_t number) noexcept {
        number = std::min(number, kMost);
        ++counts_[indexOf(number)];
        ++count_;
        least_ = std::min(least_, number);
        most_ = std::max(most_, number);
    }
    void clear() noexcept { *this = {}; }
    void add(const Histogram& other) noexcept {
        for (std::size_t i = 0; i < kBuckets; ++i) counts_[i] += other.counts_[i];
        count_ += other.count_;
        least_ = std::min(least_, other.least_);
        most_ = std::max(most_, other.most_);
    }

    [[nodiscard]] std::uint64_t count() const { return count_; }
    /// These are exact; 0 without any number.
    [[nodiscard]] std::uint64_t least() const { return count_ == 0 ? 0 : least_; }
    [[nodiscard]] std::uint64_t most() const { return most_; }

    /// The least number that is not exceeded by that share, from 0 to 1, of all numbers; 0 without
    /// any.
    [[nodiscard]] std::uint64_t quantile(double share) const noexcept {
        const auto rank =
            static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(count_)));
        std::uint64_t below = 0;
        for (std::size_t i = 0; i < kBuckets; ++i) {
            below += counts_[i];
            if (below < std::max<std::uint64_t>(rank, 1)) continue;
            return std::clamp(beginOf(i) + (beginOf(i + 1) - beginOf(i)) / 2, least_, most_);
        }
        return 0;
    }

    /// Calls `visit(from, below, count)` for each power of two that has some: numbers of at least
    /// `from` and less than `below`, the smallest first.
    template <class Visit>
    void eachOctave(Visit&& visit) const {
        for (std::size_t i = 0; i < kBuckets; i += kPerOctave) {
            std::uint64_t count = 0;
            for (std::size_t j = i; j < i + kPerOctave; ++j) count += counts_[j];
            if (count != 0) visit(beginOf(i), beginOf(i + kPerOctave), count);
        }
    }

  private:
    static constexpr unsigned kBits = 6;
    static constexpr std::size_t kPerOctave = 1U << kBits;
    static constexpr std::size_t kBuckets = (42 - kBits + 1) * kPerOctave;

    // The first octave has all numbers below 64, each of the others 64 steps between powers of two.
    static std::size_t indexOf(std::uint64_t number) noexcept {
        if (number < kPerOctave) return static_cast<std::size_t>(number);
        const unsigned shift = static_cast<unsigned>(std::bit_width(number)) - 1 - kBits;
        return shift * kPerOctave + static_cast<std::size_t>(number >> shift);
    }
    static std::uint64_t beginOf(std::size_t index) noexcept {
        if (index < kPerOctave) return index;
        const std::size_t shift = index / kPerOctave - 1;
        return std::uint64_t{index % kPerOctave + kPerOctave} << shift;
    }

    std::array<std::uint64_t, kBuckets> counts_{};
    std::uint64_t count_ = 0;
    std::uint64_t least_ = kMost;
    std::uint64_t most_ = 0;
};

}  // namespace kvx::rvd
