#include "rvd/Pace.h"

#include <utility>

namespace kvx::rvd {

std::uint64_t perSecond(std::uint64_t number, platform::Milliseconds elapsed) {
    return elapsed <= 0 ? 0 : number * 1'000 / static_cast<std::uint64_t>(elapsed);
}

Pace::Look Pace::look(const Outbox& queue, std::size_t queueLimit, platform::Milliseconds now,
                      platform::Milliseconds elapsed) {
    const std::uint64_t delivered = queue.totals().delivered;
    const std::uint64_t taken = delivered - std::exchange(deliveriesSeen_, delivered);
    const bool hasTaken = taken != 0;
    rate_ = perSecond(taken, elapsed);
    waitingSince_ =
        queue.waitingMessages() == 0 ? std::nullopt : std::optional(waitingSince_.value_or(now));
    const std::uint64_t dropped = queue.totals().dropped;
    const auto sinceThen = [this, dropped] {
        return std::to_string(dropped - lossesToldOf_) + " messages dropped";
    };
    if (dropped != std::exchange(lossesSeen_, dropped)) {
        lossAt_ = now;
        if (behindSince_) return {hasTaken, true, {}};
        behindSince_ = now;
        return {hasTaken, true, " does not keep up: " + sinceThen()};
    }
    const bool keepsUp =
        queue.waitingMessages() == 0 || (hasTaken && queue.waitingBytes() <= queueLimit / 2);
    if (!behindSince_ || !keepsUp) return {hasTaken, behindSince_.has_value(), {}};
    std::string text =
        " keeps up again: " + sinceThen() + ", " + std::to_string(dropped) + " in all";
    behindSince_.reset();
    lossesToldOf_ = dropped;
    return {hasTaken, false, std::move(text)};
}

}  // namespace kvx::rvd
