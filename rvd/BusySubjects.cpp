// Entries are replaced by weight: a subject that is not in a full table takes the place of the one
// with the least weight, and its weight: it may have been counted as often before it lost its
// place. Weights decay, all alike, so that what was busy once does not stay.
//
// The gap to the next message that is counted is drawn anew each time: a stream that goes through
// its subjects in turn would else be counted on some of them only.

#include "rvd/BusySubjects.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <random>

namespace kvx::rvd {
namespace {

constexpr std::size_t kNameCharacters = 15;   // of a service or network that are kept
constexpr double kHalfLifeMs = 60'000;        // of weights
constexpr double kRateMemoryMs = 2'000;       // of rates
constexpr std::uint32_t kMostApart = 65'536;  // messages counted, at the highest rates

std::uint64_t seed() {
    std::random_device random;
    return static_cast<std::uint64_t>(random()) << 32U | random() | 1U;
}

const std::uint8_t* bytesOf(SubjectView subject) {
    return static_cast<const std::uint8_t*>(subject.data());
}

}  // namespace

BusySubjects::BusySubjects() : hash_(seed()), random_(seed()) {
    entries_.reserve(kSubjects);
    weights_.reserve(kSubjects);
}

// Between 1 and 2 n - 1: n on average.
void BusySubjects::drawNext() noexcept {
    random_ ^= random_ << 13U;
    random_ ^= random_ >> 7U;
    random_ ^= random_ << 17U;
    untilNext_ =
        every_ == 1 ? 1 : 1 + static_cast<std::uint32_t>(random_ >> 32U) % (2 * every_ - 1);
}

BusySubjects::Place BusySubjects::count(const Router::Session& from, std::uint64_t sender,
                                        SubjectView subject, wire::Bytes message,
                                        platform::Milliseconds now) noexcept {
    const double weight = every_;
    if (++countedNow_ >= kCountedASecond) {
        countedNow_ = 0;
        every_ = std::min(2 * every_, kMostApart);
    }
    drawNext();
    const std::uint32_t hash = SubjectHash::forSlot(
        SubjectHash::combined(hash_.ofBytes(bytesOf(subject), subject.length()),
                              static_cast<std::uint32_t>(from.space())));
    try {
        Place place = find(hash, from.space(), subject);
        if (place == 0) place = enter(from, hash, subject, now);
        Entry& entry = entries_[place - 1U];
        entry.messages += weight;
        entry.freshMessages_ += weight;
        entry.freshBytes_ += weight * static_cast<double>(message.size());
        entry.bytes += weight * static_cast<double>(message.size());
        weights_[place - 1U] += static_cast<float>(weight);
        const auto known = std::ranges::find_if(
            entry.senders, [sender](std::uint64_t one) { return one == sender || one == 0; });
        known != entry.senders.end() ? void(*known = sender) : void(entry.hasMoreSenders = true);
        noteShape(entry, message, weight);
        return place;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

BusySubjects::Place BusySubjects::find(std::uint32_t hash, std::uint64_t space,
                                       SubjectView subject) const {
    const HashSlot* const slot = places_.find(hash, [&](const HashSlot& one) {
        const Entry& entry = entries_[one.number - 1U];
        return entry.space_ == space && entry.subject == subject.encoded();
    });
    return slot != nullptr ? static_cast<Place>(slot->number) : Place{0};
}

BusySubjects::Place BusySubjects::enter(const Router::Session& from, std::uint32_t hash,
                                        SubjectView subject, platform::Milliseconds now) {
    Entry entered;
    entered.service = from.service().substr(0, kNameCharacters);
    entered.network = from.network().substr(0, kNameCharacters);
    entered.subject = subject.encoded();
    entered.since = now;
    entered.space_ = from.space();
    entered.hash_ = hash;
    places_.makeRoom();
    std::size_t index = entries_.size();
    if (index < kSubjects) {
        entries_.push_back(std::move(entered));
        weights_.push_back(0);
    } else {
        index = static_cast<std::size_t>(std::ranges::min_element(weights_) - weights_.begin());
        entered.missed = weights_[index];
        leave(static_cast<Place>(index + 1));
        entries_[index] = std::move(entered);
    }
    places_.insert({hash, static_cast<std::uint32_t>(index + 1)});
    return static_cast<Place>(index + 1);
}

void BusySubjects::leave(Place place) noexcept {
    for (const auto& seen : entries_[place - 1U].shapes) shapes_.release(seen.shape);
    places_.erase(places_.find(entries_[place - 1U].hash_,
                               [place](const HashSlot& one) { return one.number == place; }));
}

void BusySubjects::noteShape(Entry& entry, wire::Bytes message, double weight) {
    const Shapes::Id shape = shapes_.hold(message);
    for (auto& seen : entry.shapes) {
        if (seen.shape == shape && shape != 0) {
            seen.messages += weight;
            return shapes_.release(shape);
        }
        if (seen.shape == 0 && shape != 0) {
            seen = {shape, weight};
            return;
        }
    }
    shapes_.release(shape);
    entry.otherShapes += weight;
}

void BusySubjects::tick(platform::Milliseconds elapsed) noexcept {
    if (elapsed <= 0) return;
    const auto time = static_cast<double>(elapsed);
    const auto keptWeight = static_cast<float>(std::exp2(-time / kHalfLifeMs));
    const double keptRate = std::exp2(-time / kRateMemoryMs);
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        Entry& entry = entries_[i];
        weights_[i] *= keptWeight;
        const auto note = [&](double& rate, double& fresh) {
            const double now = std::exchange(fresh, 0) * 1'000 / time;
            rate = rate == 0 ? now : keptRate * rate + (1 - keptRate) * now;
        };
        note(entry.rate, entry.freshMessages_);
        note(entry.byteRate, entry.freshBytes_);
    }
    const double seconds = time / 1'000;
    const bool isQuiet = 4.0 * countedNow_ < kCountedASecond * seconds;
    if (isQuiet && every_ > 1) every_ /= 2;
    countedNow_ = 0;
}

std::vector<BusySubjects::Place> BusySubjects::byRate() const {
    std::vector<Place> places(entries_.size());
    for (std::size_t i = 0; i < places.size(); ++i) places[i] = static_cast<Place>(i + 1);
    std::ranges::sort(places, [this](Place a, Place b) {
        const Entry& one = (*this)[a];
        const Entry& other = (*this)[b];
        if (one.rate != other.rate) return one.rate > other.rate;
        return weights_[a - 1U] > weights_[b - 1U];
    });
    return places;
}

}  // namespace kvx::rvd
