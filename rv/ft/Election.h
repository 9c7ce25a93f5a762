#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Decides which members of a fault-tolerance group are active: beats and time in, announcements
/// and actions out.
///
/// No bus and no clock inside: the driver passes in the beats it hears, calls `advance` at
/// `nextDeadline` or later, and carries out the steps of `takeStep`. Times are milliseconds of one
/// steady clock. Only the constructor, `hear` and the two that make a beat allocate and may throw
/// `std::bad_alloc`; a beat that failed in `hear` changes nothing.

namespace kvx::ft {

using Time = std::int64_t;

enum class MemberState : std::uint8_t { Waiting = 1, Active = 2, Leaving = 3 };

/// The rank of a member: higher weight, then the earlier start, then the smaller id is better.
struct Rank {
    std::uint32_t weight = 0;
    std::uint64_t start = 0;  ///< milliseconds since the epoch, UTC, at the joining
    std::string id;           ///< unique among all members of the group

    bool isBetterThan(const Rank& other) const;
};

/// One announcement of a member.
struct Beat {
    Rank rank;
    MemberState state = MemberState::Waiting;
    Time sent = 0;  ///< on the sender's clock, for the sender alone
};

struct Rules {
    std::uint32_t activeGoal = 1;
    Time heartbeatMs = 0;
    Time prepareMs = 0;  ///< 0: activates without preparation
    Time activateMs = 0;
};

/// The next action of the driver.
enum class Step : std::uint8_t { Announce, Prepare, Activate, Deactivate };

class Election {
  public:
    /// Bound of the known peers. Beyond it the least important one is dropped, never a
    /// better-ranked active one. A better-ranked peer that is not stored still delays this member's
    /// activation for as long as a known one would.
    static constexpr std::size_t kMaximumPeers = 1024;

    /// Joins at `now`, without an action: the first step is an announcement.
    Election(Rank self, const Rules& rules, Time now);

    /// Takes a beat of this group. The member's own, heard back, keep it fresh.
    void hear(const Beat& beat, Time now);

    /// Acts on elapsed time. No effect when called too early.
    void advance(Time now);

    /// The link is lost: no beats are sent or heard, and silence proves nothing.
    void loseLink(Time now);
    /// The link is restored. An inactive member waits as if it had just joined, and so does an
    /// active one that was cut off for the activation interval.
    void restoreLink(Time now);

    /// Removes and returns the next step, in order; nothing when there is none.
    std::optional<Step> takeStep();

    /// The latest time for the next call of `advance`.
    Time nextDeadline() const;

    /// The current announcement.
    Beat beat() const;

    /// The announcement of the leave.
    Beat farewell() const { return Beat{.rank = self_, .state = MemberState::Leaving}; }

    bool isActive() const { return phase_ == Phase::Active; }

    /// Whether an active member may still act as one: as long as the members hear one order of
    /// beats, no more than `activeGoal` are active and fresh at a time. False after a stop or a
    /// block of the activation interval until the member has heard what its peers said meanwhile.
    bool isFresh(Time now) const;

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
    void confirm(const Beat& own, Time now);
    bool isConfirmed(Time now) const;
    void remember(const Beat& beat, Time now);
    bool makeRoomFor(const Peer& newcomer);
    void forget(const std::string& id, Time now);
    void dropSilentPeers(Time now);
    void excuseLateness(Time now);
    void announceIfDue(Time now);
    void announce(Time now);
    bool isCutOff(Time now) const;
    Time activationTime() const;
    std::size_t betterActivePeers() const;

    // Constant after construction.
    Rank self_;
    Rules rules_;

    // The member's thread only.
    Time joined_;  // or when the link was restored
    Phase phase_ = Phase::Waiting;
    std::map<std::string, Peer> peers_;
    std::optional<Time> linkLost_;
    Time mayActivate_;    // before this time silence proves nothing
    Time unlistedUntil_;  // when better-ranked peers that were not stored count as silent
    std::optional<Time> lastExcuse_;
    Time prepared_ = 0;
    Time nextBeat_;
    Time announced_;                 // when the current announcement was decided
    std::optional<Time> confirmed_;  // when the newest beat that was heard back was sent
    Time confirmsFrom_;              // beats sent earlier confirm nothing
    std::size_t activePeers_ = 0;    // of any rank
    std::vector<Step> steps_;        // reserved for those of several events
    std::size_t taken_ = 0;          // of them
};

}  // namespace kvx::ft
