// A message carries the set of those who measure it, as places of the table of probes. A place may
// have got another probe while the message waited: that one began after the message came.

#include "rvd/Delays.h"

#include <algorithm>
#include <utility>

namespace kvx::rvd {

Delays::Summary::Summary(const Histogram& histogram, Nanoseconds time)
    : measured(time),
      copies(histogram.count()),
      least(histogram.least()),
      most(histogram.most()),
      p50(histogram.quantile(0.5)),
      p90(histogram.quantile(0.9)),
      p99(histogram.quantile(0.99)),
      p999(histogram.quantile(0.999)) {
    histogram.eachOctave([this](std::uint64_t from, std::uint64_t below, std::uint64_t count) {
        buckets.push_back({from, below, count});
    });
}

DelayMark::Probes Delays::probesFor(const Router::Session& from,
                                    SubjectView subject) const noexcept {
    DelayMark::Probes found = 0;
    for (std::size_t i = 0; i < kProbes; ++i) {
        const Probe* const probe = probes_[i].get();
        if (probe == nullptr || probe->space != from.space()) continue;
        if (covers(probe->pattern, subject)) found |= static_cast<DelayMark::Probes>(1U << i);
    }
    return found;
}

void Delays::handedOver(DelayMark mark) noexcept {
    const Nanoseconds now = clock_();
    const std::uint64_t delay = mark.elapsed(now);
    if ((mark.probes() & kSamples) != 0) samples_[0].add(delay);
    for (unsigned left = mark.probes() & inUse_; left != 0; left &= left - 1) {
        Probe& probe = *probes_[static_cast<std::size_t>(std::countr_zero(left))];
        const auto age = static_cast<std::uint64_t>(now - probe.startedAt);
        if (delay <= age) probe.delays.add(delay);
    }
}

std::optional<Delays::Summary> Delays::ask(const Router::Session& asker, SubjectView pattern,
                                           platform::Milliseconds now) {
    auto place = std::ranges::find_if(probes_, [&](const auto& probe) {
        return probe && probe->asker == asker.number() &&
               probe->pattern.view().encoded() == pattern.encoded();
    });
    if (place == probes_.end()) {
        place = std::ranges::find_if(probes_, [](const auto& probe) { return !probe; });
        if (place == probes_.end()) return std::nullopt;
        *place = std::make_unique<Probe>(
            Probe{asker.number(), asker.space(), Subject(pattern), clock_(), 0, {}});
        inUse_ |= static_cast<DelayMark::Probes>(1U << (place - probes_.begin()));
    }
    (*place)->askedAt = now;
    return Summary((*place)->delays, clock_() - (*place)->startedAt);
}

Delays::Summary Delays::ofSamples() const {
    Histogram both = samples_[0];
    both.add(samples_[1]);
    return Summary(both);
}

void Delays::forget(const Router::Session& asker) noexcept {
    for (std::size_t i = 0; i < kProbes; ++i) {
        if (probes_[i] && probes_[i]->asker == asker.number()) end(i);
    }
}

void Delays::end(std::size_t place) noexcept {
    probes_[place].reset();
    inUse_ &= static_cast<DelayMark::Probes>(~(1U << place));
}

void Delays::tick(platform::Milliseconds now) noexcept {
    for (std::size_t i = 0; i < kProbes; ++i) {
        if (probes_[i] && now - probes_[i]->askedAt > kLeaseMs) end(i);
    }
    if (now - windowBegan_ < kWindowMs) return;
    windowBegan_ = now;
    samples_[1] = samples_[0];
    samples_[0].clear();
}

}  // namespace kvx::rvd
