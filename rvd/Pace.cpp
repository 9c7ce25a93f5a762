#include "rvd/Pace.h"

#include <utility>

namespace kvx::rvd {

Pace::Look Pace::look(const Outbox& queue, std::size_t queueLimit) {
    const std::uint64_t delivered = queue.totals().delivered;
    const bool hasTaken = delivered != std::exchange(deliveriesSeen_, delivered);
    const std::uint64_t dropped = queue.totals().dropped;
    const auto sinceThen = [this, dropped] {
        return std::to_string(dropped - lossesToldOf_) + " messages dropped";
    };
    if (dropped != std::exchange(lossesSeen_, dropped)) {
        if (std::exchange(isBehind_, true)) return {hasTaken, true, {}};
        return {hasTaken, true, " does not keep up: " + sinceThen()};
    }
    const bool keepsUp =
        queue.waitingMessages() == 0 || (hasTaken && queue.waitingBytes() <= queueLimit / 2);
    if (!isBehind_ || !keepsUp) return {hasTaken, isBehind_, {}};
    std::string text =
        " keeps up again: " + sinceThen() + ", " + std::to_string(dropped) + " in all";
    isBehind_ = false;
    lossesToldOf_ = dropped;
    return {hasTaken, false, std::move(text)};
}

}  // namespace kvx::rvd
