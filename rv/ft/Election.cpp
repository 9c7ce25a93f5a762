// The election of the active members of a fault-tolerance group.
//
// A member is waiting, prepared or active. It keeps the last beat of every peer, and drops a peer
// that has been silent for the activation interval or has announced its leave. A waiting member
// activates when fewer than `activeGoal` better-ranked peers are left, but not before the
// activation interval has passed since it joined (or its link was restored): until then it may not
// have heard all peers. A peer's silence counts from its last beat, so the moment of activation is
// known ahead. A member prepares `prepareMs` earlier, and never activates sooner after preparing,
// even when a leave frees the place at once. An active member deactivates when it hears
// `activeGoal` better-ranked active peers, or when it has been cut off for the activation interval,
// since by then a peer may be active.
//
// A driver that runs late (its thread was blocked) has beats that it has not read yet, so silence
// proves nothing: an inactive member then listens for one more heartbeat, at most once per
// activation interval, so that a thread that is always late can still activate.
//
// A member that stood still may be active without knowing that another has taken over. So acting is
// a lease. A beat that was heard back had reached the bus, where it kept the peers from activating
// for the activation interval after it was sent; so long the member is fresh. All members hear one
// order of beats, that of the daemon. Hence a member that hears its beat back has heard everything
// that its peers said before, and each of them hears its beat before any later one of its own. With
// two members: after activating only an active beat renews the lease, and none acts while it knows
// of another active one; so of two that are active the one whose beat was second waits until the
// other has deactivated, or learns that it is the one to deactivate. What peers said while the link
// was lost is never heard: a lease that ended meanwhile is renewed only by a beat sent one
// activation interval later, when every lease from before has ended.

#include "rv/ft/Election.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>

namespace kvx::ft {

namespace {
constexpr std::size_t kStepsAtOnce = 64;
}

bool Rank::isBetterThan(const Rank& other) const {
    if (weight != other.weight) return weight > other.weight;
    if (start != other.start) return start < other.start;
    return id < other.id;
}

Election::Election(Rank self, const Rules& rules, Time now)
    : self_(std::move(self)),
      rules_(rules),
      joined_(now),
      mayActivate_(now + rules.activateMs),
      unlistedUntil_(now),
      nextBeat_(now),
      announced_(now),
      confirmsFrom_(now) {
    steps_.reserve(kStepsAtOnce);
    announceIfDue(now);
}

void Election::hear(const Beat& beat, Time now) {
    if (beat.rank.id == self_.id) return confirm(beat, now);
    excuseLateness(now);
    if (beat.state == MemberState::Leaving) {
        forget(beat.rank.id, now);
    } else {
        remember(beat, now);
    }
    dropSilentPeers(now);
    decide(now);
}

void Election::confirm(const Beat& own, Time now) {
    if ((own.state == MemberState::Active) != isActive()) return;
    if (own.sent < confirmsFrom_ || own.sent > now) return;
    if (!confirmed_ || *confirmed_ < own.sent) confirmed_ = own.sent;
}

bool Election::isConfirmed(Time now) const {
    return confirmed_ && now < *confirmed_ + rules_.activateMs;
}

bool Election::isFresh(Time now) const {
    return isConfirmed(now) && activePeers_ < rules_.activeGoal;
}

void Election::remember(const Beat& beat, Time now) {
    const Peer heard{
        .rank = beat.rank, .isActive = beat.state == MemberState::Active, .heard = now};
    const auto known = peers_.find(beat.rank.id);
    if (known != peers_.end()) {
        known->second = heard;
    } else if (peers_.size() < kMaximumPeers || makeRoomFor(heard)) {
        peers_.emplace(beat.rank.id, heard);
    } else if (heard.rank.isBetterThan(self_)) {
        unlistedUntil_ = now + rules_.activateMs;
    }
}

// Drops the least important peer: worse-ranked before better-ranked, inactive before active, then
// the one heard longest ago. Never drops a better-ranked active peer.
bool Election::makeRoomFor(const Peer& newcomer) {
    const auto importance = [this](const Peer& peer) {
        return std::tuple(peer.rank.isBetterThan(self_), peer.isActive, peer.heard);
    };
    const auto least = std::min_element(
        peers_.begin(), peers_.end(),
        [&](const auto& a, const auto& b) { return importance(a.second) < importance(b.second); });
    const bool staysAnyway = least->second.isActive && least->second.rank.isBetterThan(self_);
    if (staysAnyway || importance(newcomer) < importance(least->second)) return false;
    peers_.erase(least);
    return true;
}

// The next in rank takes over from an active peer that leaves, but not before one heartbeat after
// its own joining, when it has heard all peers. Until then an unknown peer that leaves may have
// been active.
void Election::forget(const std::string& id, Time now) {
    const auto peer = peers_.find(id);
    const bool isKnown = peer != peers_.end();
    const bool mayHaveLed = isKnown ? peer->second.isActive : now < joined_ + rules_.heartbeatMs;
    if (mayHaveLed) {
        mayActivate_ = std::min(mayActivate_, std::max(now, joined_ + rules_.heartbeatMs));
    }
    if (isKnown) peers_.erase(peer);
}

void Election::advance(Time now) {
    excuseLateness(now);
    dropSilentPeers(now);
    decide(now);
    announceIfDue(now);
}

void Election::excuseLateness(Time now) {
    const bool isLate = now > nextDeadline() + rules_.heartbeatMs;
    if (!isLate || (lastExcuse_ && *lastExcuse_ + rules_.activateMs > now)) return;
    lastExcuse_ = now;
    mayActivate_ = std::max(mayActivate_, now + rules_.heartbeatMs);
}

void Election::loseLink(Time now) {
    if (!linkLost_) linkLost_ = now;
    if (phase_ == Phase::Prepared) enter(Phase::Waiting, now);
}

// A driver that was blocked during the outage checks its length only now.
void Election::restoreLink(Time now) {
    if (isCutOff(now) && phase_ == Phase::Active) enter(Phase::Waiting, now);
    if (!isFresh(now)) {
        confirmed_.reset();
        confirmsFrom_ = now + rules_.activateMs;
    }
    linkLost_.reset();
    peers_.clear();
    activePeers_ = 0;
    joined_ = now;
    mayActivate_ = now + rules_.activateMs;
    nextBeat_ = now;
    announceIfDue(now);
}

void Election::dropSilentPeers(Time now) {
    std::erase_if(peers_,
                  [&](const auto& entry) { return entry.second.heard + rules_.activateMs <= now; });
}

void Election::decide(Time now) {
    activePeers_ = static_cast<std::size_t>(
        std::ranges::count_if(peers_, [](const auto& entry) { return entry.second.isActive; }));
    if (phase_ == Phase::Active) {
        decideActive(now);
    } else if (!linkLost_) {
        decideInactive(now);
    }
}

// Whether a peer may be active by now without our hearing of it.
bool Election::isCutOff(Time now) const {
    return linkLost_ && *linkLost_ + rules_.activateMs <= now;
}

void Election::decideActive(Time now) {
    if (isCutOff(now) || betterActivePeers() >= rules_.activeGoal) enter(Phase::Waiting, now);
}

void Election::decideInactive(Time now) {
    const Time due = activationTime();
    if (phase_ == Phase::Waiting && rules_.prepareMs > 0 && due - rules_.prepareMs <= now) {
        enter(Phase::Prepared, now);
    } else if (phase_ == Phase::Prepared && due - rules_.prepareMs > now) {
        enter(Phase::Waiting, now);
    }
    if (rules_.prepareMs > 0 && (phase_ != Phase::Prepared || prepared_ + rules_.prepareMs > now)) {
        return;
    }
    if (due <= now) enter(Phase::Active, now);
}

void Election::enter(Phase phase, Time now) {
    const bool wasActive = phase_ == Phase::Active;
    phase_ = phase;
    if (phase == Phase::Prepared) {
        prepared_ = now;
        steps_.push_back(Step::Prepare);
    }
    if (wasActive == (phase == Phase::Active)) return;
    if (!wasActive) {
        confirmed_.reset();
        confirmsFrom_ = std::max(confirmsFrom_, now);
    }
    announce(now);
    steps_.push_back(wasActive ? Step::Deactivate : Step::Activate);
}

void Election::announceIfDue(Time now) {
    if (nextBeat_ <= now) announce(now);
}

void Election::announce(Time now) {
    nextBeat_ = now + rules_.heartbeatMs;
    announced_ = now;
    steps_.push_back(Step::Announce);
}

// When fewer than `activeGoal` better-ranked peers will be left, if no further beat is heard.
Time Election::activationTime() const {
    const Time earliest = std::max(mayActivate_, unlistedUntil_);
    std::array<Time, kMaximumPeers> ends;
    Time* end = ends.data();
    for (const auto& [id, peer] : peers_) {
        if (peer.rank.isBetterThan(self_)) *end++ = peer.heard + rules_.activateMs;
    }
    if (end - ends.data() < static_cast<std::ptrdiff_t>(rules_.activeGoal)) return earliest;
    Time* const nth = ends.data() + rules_.activeGoal - 1;
    std::ranges::nth_element(ends.data(), nth, end, std::greater<>());
    return std::max(earliest, *nth);
}

std::size_t Election::betterActivePeers() const {
    return static_cast<std::size_t>(
        std::count_if(peers_.begin(), peers_.end(), [&](const auto& entry) {
            return entry.second.isActive && entry.second.rank.isBetterThan(self_);
        }));
}

std::optional<Step> Election::takeStep() {
    if (taken_ < steps_.size()) return steps_[taken_++];
    steps_.clear();
    taken_ = 0;
    return std::nullopt;
}

Time Election::nextDeadline() const {
    Time deadline = nextBeat_;
    if (phase_ == Phase::Active) {
        if (linkLost_) deadline = std::min(deadline, *linkLost_ + rules_.activateMs);
        return deadline;
    }
    if (linkLost_) return deadline;
    const Time due = activationTime();
    if (phase_ == Phase::Prepared) {
        return std::min(deadline, std::max(due, prepared_ + rules_.prepareMs));
    }
    return std::min(deadline, due - rules_.prepareMs);
}

Beat Election::beat() const {
    return Beat{.rank = self_,
                .state = phase_ == Phase::Active ? MemberState::Active : MemberState::Waiting,
                .sent = announced_};
}

}  // namespace kvx::ft
