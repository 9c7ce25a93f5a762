#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Clock.h"
#include "rvd/Outbox.h"

namespace kvx::rvd {

/// So many in that time, a second.
[[nodiscard]] std::uint64_t perSecond(std::uint64_t number, platform::Milliseconds elapsed);

/// Whether a peer keeps up with its queue, as looked at now and then.
class Pace {
  public:
    struct Look {
        bool hasTaken = false;  ///< messages were delivered since the last look
        bool isBehind = false;  ///< messages were dropped, and it does not keep up again
        std::string text;       ///< what to log of the peer, when `isBehind` has changed
    };
    /// Takes what a queue that was taken over has been through as seen.
    void begin(const Outbox::Totals& totals) {
        deliveriesSeen_ = totals.delivered;
        lossesSeen_ = lossesToldOf_ = totals.dropped;
    }
    /// `elapsed`: since the last look. A peer keeps up again when nothing was dropped since the
    /// last look, and the queue, of that limit in bytes, is empty or goes down. Throws
    /// `std::bad_alloc`.
    Look look(const Outbox& queue, std::size_t queueLimit, platform::Milliseconds now,
              platform::Milliseconds elapsed);

    /// Messages a second that were delivered before the last look.
    [[nodiscard]] std::uint64_t rate() const { return rate_; }
    /// Since when there were messages in the queue at each look.
    [[nodiscard]] std::optional<platform::Milliseconds> waitingSince() const {
        return waitingSince_;
    }
    /// Since when it does not keep up, and when messages were dropped last.
    [[nodiscard]] std::optional<platform::Milliseconds> behindSince() const { return behindSince_; }
    [[nodiscard]] std::optional<platform::Milliseconds> lossAt() const { return lossAt_; }

  private:
    std::uint64_t deliveriesSeen_ = 0;  // of messages, up to the last look
    std::uint64_t lossesSeen_ = 0;
    std::uint64_t lossesToldOf_ = 0;  // when it kept up last
    std::uint64_t rate_ = 0;
    std::optional<platform::Milliseconds> waitingSince_;
    std::optional<platform::Milliseconds> behindSince_;
    std::optional<platform::Milliseconds> lossAt_;
};

}  // namespace kvx::rvd
