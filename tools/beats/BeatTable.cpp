// Entries stand in the order of their last beats: a beat moves its entry to the end, so the one to
// drop, for its silence or for want of room, is always the first.

#include "tools/beats/BeatTable.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace kvx::beats {

std::uint64_t Service::overdue(Milliseconds now) const {
    const Milliseconds silence = age(now) - kTolerance;
    return silence <= 0 ? 0 : static_cast<std::uint64_t>(silence / kInterval);
}

bool BeatTable::hear(std::span<const unsigned char> packet, Milliseconds now) {
    auto beat = readBeat(packet);
    if (!beat) {
        ++counters_.ignored;
        return false;
    }
    ++counters_.heard;
    forgetSilent(now);
    const auto known = index_.find(keyOf(*beat));
    if (known == index_.end()) {
        insert(*beat, now);
        return true;
    }
    Service& service = *known->second;
    service.missedBefore += service.overdue(now);
    service.beat = std::move(*beat);
    service.lastHeard = now;
    ++service.beats;
    entries_.splice(entries_.end(), entries_, known->second);
    return true;
}

void BeatTable::insert(const Beat& beat, Milliseconds now) {
    if (entries_.size() == kMostServices) dropOldest();
    entries_.push_back({beat, now, now, 1, 0});
    index_.emplace(keyOf(beat), std::prev(entries_.end()));
}

void BeatTable::forgetSilent(Milliseconds now) {
    while (!entries_.empty() && entries_.front().age(now) >= kForgetAfter) dropOldest();
}

void BeatTable::dropOldest() {
    index_.erase(keyOf(entries_.front().beat));
    entries_.pop_front();
    ++counters_.forgotten;
}

std::size_t BeatTable::silent(Milliseconds now) const {
    const auto heard = std::find_if(entries_.begin(), entries_.end(),
                                    [now](const Service& one) { return one.overdue(now) == 0; });
    return static_cast<std::size_t>(std::distance(entries_.begin(), heard));
}

std::vector<Service> BeatTable::services() const {
    std::vector<Service> all;
    all.reserve(index_.size());
    for (const auto& [key, entry] : index_) all.push_back(*entry);
    return all;
}

}  // namespace kvx::beats
