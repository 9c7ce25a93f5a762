#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>

#include "rv/rv.h"
#include "tools/beats/Limits.h"

namespace kvx::beats {

/// What one member of a fault-tolerance group says of itself, every 1.5 s and at each change.
struct MemberBeat {
    std::string id;            ///< its session's name, and a number
    std::string group;         ///< base, domain and tier, joined by full stops
    std::int64_t startMs = 0;  ///< of its membership, on its host's clock, since the epoch
    bool isActive = false;
    bool isLeaving = false;
};

/// Reads a message of `_RVFT.>`; nothing for any other.
[[nodiscard]] std::optional<MemberBeat> readMemberBeat(const RvMsg& message);

/// The process of a member's session; nothing when its name does not tell.
[[nodiscard]] std::optional<std::int64_t> processOf(const MemberBeat& beat);

/// One member, from its beats. Times are of the caller's clock.
struct Member {
    std::string group;
    Milliseconds lastHeard = 0;
    Milliseconds awaitedSince = 0;  ///< the last beat, or when listening was resumed after it
    Milliseconds roleSince = 0;
    std::int64_t roleSinceMs = 0;  ///< the same since the epoch
    /// Whether `roleSince` is when it took its role, to the 1.5 s of a beat. Else it had the role
    /// at that time already, and since when is not known.
    bool isRoleSeen = false;
    bool isPrimary = false;
    bool hasLeft = false;

    /// Three of its beats are missing.
    [[nodiscard]] bool isSilent(Milliseconds now) const;
};

/// The name of an engine's group in its parts.
struct GroupName {
    std::string base;
    int tier = 0;
};

/// Nothing when `group` is not BASE.DOMAIN.TIER, or BASE.TIER where `domain` is empty.
[[nodiscard]] std::optional<GroupName> groupNameOf(const std::string& group,
                                                   const std::string& domain);

/// The members of all groups, fed with their beats. Bounded as `BeatTable` is. One thread at a
/// time.
class GroupTable {
  public:
    /// `wallMs` is the time since the epoch at `now`.
    void hear(const MemberBeat& beat, Milliseconds now, std::int64_t wallMs);

    /// After a time in which nothing could be heard: nobody is silent for that.
    void resume(Milliseconds now);

    void forgetSilent(Milliseconds now);

    /// The member of an engine's group in `domain` whose process has the id `pid`; null when there
    /// is none, or more than one that is alive. Valid until this object is changed.
    [[nodiscard]] const Member* find(std::int64_t pid, const std::string& domain,
                                     Milliseconds now) const;

  private:
    struct Entry {
        std::string id;
        std::int64_t pid;
        Member member;
    };
    using Entries = std::list<Entry>;

    void insert(const MemberBeat& beat, std::int64_t pid, Milliseconds now, std::int64_t wallMs);
    void dropOldest();

    Entries entries_;  // the one silent longest first
    std::map<std::string, Entries::iterator> byId_;
    std::multimap<std::int64_t, Entries::iterator> byProcess_;
};

}  // namespace kvx::beats
