#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Who is active in a fault-tolerance group: beats and the time in, announcements and actions out.
///
/// No bus and no clock inside: whoever drives an election delivers the beats it hears, calls
/// `advance` at `nextDeadline` or later, and carries out what `takeStep` gives. Times are
/// milliseconds of one steady clock. Only the constructor, `hear` and the two that make a beat need
/// memory and may throw `std::bad_alloc`; what was not heard then changes nothing.

namespace kvx::ft {

using Time = std::int64_t;

enum class MemberState : std::uint8_t { Waiting = 1, Active = 2, Leaving = 3 };

/// What decides who goes first: higher weight, then the earlier start, then the smaller id.
struct Rank {
    std::uint32_t weight = 0;
    std::uint64_t start = 0;  ///< milliseconds since the epoch, UTC, at the joining
    std::string id;           ///< unique among all members of the group

    bool isBetterThan(const Rank& other) const;
};

/// What a member says about itself.
struct Beat {
    Rank rank;
    MemberState state = MemberState::Waiting;
};

struct Rules {
    std::uint32_t activeGoal = 1;
    Time heartbeatMs = 0;
    Time prepareMs = 0;  ///< 0: activates without preparation
    Time activateMs = 0;
};

/// What the driver is to do next.
enum class Step : std::uint8_t { Announce, Prepare, Activate, Deactivate };

class Election {
  public:
    /// Members known at one time. When more turn up, one that counts less is forgotten: never a
    /// better-ranked active one. A better-ranked one that finds no place still keeps this member
    /// from activating for as long as a known one would.
    static constexpr std::size_t kMaximumPeers = 1024;

    /// Joins at `now`, without an action: the first step is an announcement.
    Election(Rank self, const Rules& rules, Time now);

    /// A beat of this group has been heard. One's own comes back too, and counts for nothing.
    void hear(const Beat& beat, Time now);

    /// Time has passed. Harmless when called too early.
    void advance(Time now);

    /// The daemon is gone: nobody hears us, and silence says nothing about the others.
    void loseLink(Time now);
    /// The daemon is back. An inactive member waits as if it had just joined, and so does an active
    /// one that was cut off for the activation interval.
    void restoreLink(Time now);

    /// The next thing to do, in order; nothing when all is done.
    std::optional<Step> takeStep();

    /// When `advance` has something to do at the latest.
    Time nextDeadline() const;

    /// What an announcement says now.
    Beat beat() const;

    /// What the last announcement says.
    Beat farewell() const { return Beat{.rank = self_, .state = MemberState::Leaving}; }

    bool isActive() const { return phase_ == Phase::Active; }

  private:
    enum class Phase : std::uint8_t { Waiting, Prepared, Active };

    struct Peer {
        Rank rank;
        bool isActive;
        Time heard;
    };

    void decide(Time now);
    void decideActive(Time now);
    void decideInactive(Time now);
    void enter(Phase phase, Time now);
    void remember(const Beat& beat, Time now);
    bool makeRoomFor(const Peer& newcomer);
    void forget(const std::string& id, Time now);
    void dropSilentPeers(Time now);
    void excuseLateness(Time now);
    void announceIfDue(Time now);
    bool isCutOff(Time now) const;
    Time activationTime() const;
    std::size_t betterActivePeers() const;

    // Constant after construction.
    Rank self_;
    Rules rules_;

    // The member's thread only.
    Time joined_;  // or when the daemon came back
    Phase phase_ = Phase::Waiting;
    std::map<std::string, Peer> peers_;
    std::optional<Time> linkLost_;
    Time mayActivate_;    // before this one, silence proves nothing
    Time unlistedUntil_;  // when better-ranked ones that found no place count as silent
    std::optional<Time> lastExcuse_;
    Time prepared_ = 0;
    Time nextBeat_;
    std::vector<Step> steps_;  // with room for those of several events
    std::size_t taken_ = 0;    // of them
};

}  // namespace kvx::ft
