#pragma once

#include <memory>
#include <string>

#include "rv/ft/Election.h"
#include "rv/ft/rvft.h"

namespace kvx::ft {

/// The codes of rvft.h.
enum FtCode : int {
    kOk = 0,
    kBadArgument = 1,
    kBadSession = 2,
    kNoMemory = 3,
    kAlreadyMember = 4,
    kNoMember = 5,
    kCannotAnnounce = 6,
};

/// What a member does on its session's behalf, as given to `rvft_Join`.
struct Membership {
    rv_Session session;
    std::string group;
    rvft_Action action;
    void* closure;
};

/// One member of a group on a session: carries an election's steps to the bus and the bus's news to
/// the election. The registry owns it; whoever runs one of its operations holds it as well, since
/// user code may leave the group meanwhile. Loop thread of the session only.
class Member {
  public:
    Member(Membership membership, Rank rank, const Rules& rules, void* token);
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    /// Registers with the session and announces the joining. With nothing left behind, `kNoMemory`
    /// or, when the session cannot listen on `subject` or has no timers, `kCannotAnnounce`.
    FtCode start(const std::string& subject);

    /// Announces the leave and ends every registration. Nothing calls back afterwards.
    void leave();

    bool isOf(rv_Session session, const std::string& group) const {
        return membership_.session == session && membership_.group == group;
    }

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

/// The members of this process by token: a token is never used twice, so that one of a member that
/// has left is known for dead. Any thread.
std::shared_ptr<Member> findMember(void* token);

}  // namespace kvx::ft
