#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Clock.h"
#include "rv/message/SubjectView.h"
#include "rvd/DelayMark.h"
#include "rvd/Histogram.h"
#include "rvd/Line.h"
#include "rvd/Router.h"

namespace kvx::rvd {

/// How long messages are in the daemon: from the moment when their last bytes were read until the
/// system has taken the last byte of a copy. Copies that are dropped do not count.
///
/// A session may have the messages of its space on a pattern measured, all of them, for as long as
/// it asks again within `kLeaseMs`; at most `kProbes` patterns at a time. Beside that messages that
/// are sampled are measured. Nothing else costs more than a look at a word. Loop thread only.
class Delays {
  public:
    static constexpr std::size_t kProbes = 15;
    static constexpr platform::Milliseconds kLeaseMs = 10'000;
    /// What `ofSamples` covers: the present window and the one before.
    static constexpr platform::Milliseconds kWindowMs = 10'000;

    /// What is known of the delays of some messages, in nanoseconds.
    struct Summary {
        explicit Summary(const Histogram& histogram, Nanoseconds time = 0);

        Nanoseconds measured;  // for so long; 0: of samples
        std::uint64_t copies = 0;
        std::uint64_t least = 0;
        std::uint64_t most = 0;
        std::uint64_t p50 = 0;
        std::uint64_t p90 = 0;
        std::uint64_t p99 = 0;
        std::uint64_t p999 = 0;
        struct Bucket {
            std::uint64_t from;
            std::uint64_t below;
            std::uint64_t copies;
        };
        std::vector<Bucket> buckets;  // the smallest first; none is empty
    };

    explicit Delays(Line::Clock clock) : clock_(clock) {}

    /// The mark of a message received at that time.
    [[nodiscard]] DelayMark mark(const Router::Session& from, SubjectView subject, bool isSampled,
                                 Nanoseconds receivedAt) const noexcept {
        DelayMark::Probes probes = isSampled ? kSamples : 0;
        if (inUse_ != 0) probes |= probesFor(from, subject);
        return probes == 0 ? DelayMark() : DelayMark(probes, receivedAt);
    }
    /// A copy of a message with that mark is on its way.
    void handedOver(DelayMark mark) noexcept;

    /// Measures for `asker` from now on, or goes on, and returns what was found since it began.
    /// Nothing when all probes are in use. Throws `std::bad_alloc`.
    [[nodiscard]] std::optional<Summary> ask(const Router::Session& asker, SubjectView pattern,
                                             platform::Milliseconds now);
    /// Of samples of all messages, of the last ten to twenty seconds. Throws `std::bad_alloc`.
    [[nodiscard]] Summary ofSamples() const;

    /// That session is gone: its probes are free for others.
    void forget(const Router::Session& asker) noexcept;

    /// About once a second.
    void tick(platform::Milliseconds now) noexcept;

  private:
    static constexpr DelayMark::Probes kSamples = 1U << kProbes;

    struct Probe {
        std::uint64_t asker;  // its number
        std::uint64_t space;
        Subject pattern;
        Nanoseconds startedAt;
        platform::Milliseconds askedAt = 0;
        Histogram delays;
    };

    void end(std::size_t place) noexcept;
    [[nodiscard]] DelayMark::Probes probesFor(const Router::Session& from,
                                              SubjectView subject) const noexcept;

    const Line::Clock clock_;
    std::array<std::unique_ptr<Probe>, kProbes> probes_;
    DelayMark::Probes inUse_ = 0;
    std::array<Histogram, 2> samples_;  // of this window and of the one before
    platform::Milliseconds windowBegan_ = 0;
};

}  // namespace kvx::rvd
