// Binds one election to a session: hooks, a timer and a listen feed it, and its steps are sent or
// passed to the action.
//
// Core callbacks carry the member's token, never a pointer: a callback for a member that has left
// finds none. Sending may run user code (the core calls its listeners when it finds the daemon
// gone), and so may every action. So one loop carries out the steps, a nested call leaves them to
// the outer one, and the loop checks after each step whether the member has left.

#include "rv/ft/Member.h"

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

#include "rv/error/rvCodes.h"
#include "rv/ft/GroupMessage.h"
#include "rv/message/rvmsg.h"
#include "rv/session/rvSessionEvents.h"
#include "rv/session/rvSessionHooks.h"

namespace kvx::ft {

namespace {

template <void (Member::*News)()>
int onHook(rv_Session /*session*/, const void* /*message*/, void* token) {
    if (const auto member = findMember(token)) (member.get()->*News)();
    return 0;
}

int onClose(rv_Session /*session*/, const void* /*message*/, void* token) {
    rvft_Leave(static_cast<rvft_MemberId>(token));
    return 0;
}

void onTimerEvent(void* /*session*/, void* token, int /*kind*/, void* /*id*/) {
    if (const auto member = findMember(token)) member->onTimer();
}

void onMessage(rv_Session /*session*/, const char* /*subject*/, const char* /*reply*/,
               rvmsg_Type type, rvmsg_Size /*size*/, rvmsg_Data data, void* token) {
    if (type != RVMSG_MSG) return;
    if (const auto member = findMember(token)) member->onBeat(data);
}

struct HookEntry {
    rv_HookList list;
    rv_Hook hook;
};

constexpr HookEntry kHooks[] = {
    {.list = RV_HOOK_DISCONNECT, .hook = onHook<&Member::onDisconnect>},
    {.list = RV_HOOK_RECONNECT, .hook = onHook<&Member::onReconnect>},
    {.list = RV_HOOK_CLOSE, .hook = onClose},
};

}  // namespace

Member::Member(Membership membership, Rank rank, const Rules& rules, void* token)
    : membership_(std::move(membership)),
      token_(token),
      election_(std::move(rank), rules, platform::monotonicMs()) {}

FtCode Member::start(const std::string& subject) {
    FtCode code = kNoMemory;
    try {
        subject_ = subject;
        code = registerWithSession();
        if (code == kOk) {
            if (!rv_IsConnected(membership_.session)) election_.loseLink(platform::monotonicMs());
            carryOut();
        }
    } catch (const std::bad_alloc&) {
        code = kNoMemory;
    }
    if (code != kOk) unregister();
    return code;
}

FtCode Member::registerWithSession() {
    rv_Session session = membership_.session;
    for (const HookEntry& entry : kHooks) {
        if (rv_AddHook(session, entry.list, entry.hook, token_) != 0) return kNoMemory;
    }
    const int armed = rv_AddTimer(session, &timer_, 0, onTimerEvent, token_);
    if (armed == event_code::kResourcesExceeded) return kNoMemory;
    if (armed != 0) return kCannotAnnounce;
    const int heard = rv_Listen(session, &listener_, subject_.c_str(), onMessage, token_);
    if (heard == session_code::kNoMemory) return kNoMemory;
    // A link that breaks here counts as broken before: the listen is announced at the reconnect.
    const bool brokeNow = heard == session_code::kNotConnected && rv_IsOpen(session);
    return heard == 0 || (brokeNow && listener_ != nullptr) ? kOk : kCannotAnnounce;
}

void Member::unregister() {
    rv_Session session = membership_.session;
    for (const HookEntry& entry : kHooks) rv_RemoveHook(session, entry.list, entry.hook, token_);
    if (timer_ != nullptr) rv_RemoveTimer(session, std::exchange(timer_, nullptr));
    if (listener_ != nullptr) rv_Cancel(session, std::exchange(listener_, nullptr));
}

void Member::leave() {
    hasLeft_ = true;
    announce(&Election::farewell);
    unregister();
}

void Member::onBeat(const void* message) {
    const auto beat = decodeBeat(message, membership_.group);
    if (!beat) return;
    election_.hear(*beat, platform::monotonicMs());
    carryOut();
}

void Member::onTimer() {
    timer_ = nullptr;
    election_.advance(platform::monotonicMs());
    carryOut();
}

void Member::onDisconnect() {
    election_.loseLink(platform::monotonicMs());
    carryOut();
}

void Member::onReconnect() {
    election_.restoreLink(platform::monotonicMs());
    carryOut();
}

void Member::carryOut() {
    if (isCarryingOut_) return;
    isCarryingOut_ = true;
    while (!hasLeft_) {
        const auto step = election_.takeStep();
        if (!step) break;
        int action = RVFT_DEACTIVATE;
        switch (*step) {
            case Step::Announce:
                announce(&Election::beat);
                continue;
            case Step::Prepare:
                action = RVFT_PREPARE_TO_ACTIVATE;
                break;
            case Step::Activate:
                action = RVFT_ACTIVATE;
                break;
            case Step::Deactivate:
                break;
        }
        membership_.action(membership_.session, membership_.group.c_str(), action,
                           membership_.closure);
    }
    isCarryingOut_ = false;
    if (!hasLeft_) arm();
}

// A failed send needs no handling: the disconnect hook has told the election. Without memory the
// next heartbeat replaces this one.
void Member::announce(Beat (Election::*news)() const) {
    std::vector<unsigned char> message;
    try {
        message = encodeBeat((election_.*news)(), membership_.group);
    } catch (const std::bad_alloc&) {
        return;
    }
    if (message.empty()) return;
    rv_Send(membership_.session, subject_.c_str(), nullptr, RVMSG_MSG, 0, message.data());
}

void Member::arm() {
    const Time wait = std::max<Time>(0, election_.nextDeadline() - platform::monotonicMs());
    const auto interval = static_cast<unsigned long>(wait);
    if (timer_ != nullptr) {
        rv_ResetTimer(membership_.session, timer_, interval);
    } else {
        rv_AddTimer(membership_.session, &timer_, interval, onTimerEvent, token_);
    }
}

}  // namespace kvx::ft
