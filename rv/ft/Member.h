#pragma once

#include <memory>
#include <string>

#include "platform/Clock.h"
#include "rv/ft/Election.h"
#include "rv/ft/GroupCodes.h"
#include "rv/ft/rvft.h"

namespace kvx::ft {

/// The arguments of `rvft_Join` that a member keeps.
struct Membership {
    rv_Session session;
    std::string group;
    rvft_Action action;
    void* closure;
};

/// One member of a group on a session: connects an election to the bus. The registry owns it; a
/// running operation holds it as well, since user code may leave the group meanwhile. Loop thread
/// of the session only.
class Member {
  public:
    Member(Membership membership, Rank rank, const Rules& rules, void* token);
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    /// Registers with the session and announces the joining. On failure leaves no registration and
    /// returns `kNoMemory` or, when the session cannot listen on `subject` or has no timers,
    /// `kCannotAnnounce`.
    FtCode start(const std::string& subject);

    /// Announces the leave and ends every registration; no callback runs afterwards.
    void leave();

    bool isOf(rv_Session session, const std::string& group) const {
        return membership_.session == session && membership_.group == group;
    }

    bool isFresh() const { return election_.isFresh(platform::monotonicMs()); }

    void onBeat(const void* message);
    void onTimer();
    void onDisconnect();
    void onReconnect();

  private:
    FtCode registerWithSession();
    void unregister();
    void carryOut();
    void announce(Beat (Election::*news)() const);
    void arm();

    // Constant after construction.
    Membership membership_;
    void* token_;
    std::string subject_;

    Election election_;
    rv_Listener listener_ = nullptr;
    void* timer_ = nullptr;
    bool isCarryingOut_ = false;
    bool hasLeft_ = false;
};

/// The member of this token, null when it has left. A token is never reused. Any thread.
std::shared_ptr<Member> findMember(void* token);

}  // namespace kvx::ft
