// The link breaks and comes back.
//
// A lost link is dropped at once, so that whatever discovers the loss next finds none; the advisory
// is delivered once for that reason. An asynchronous session then tries to connect from a timer: at
// once, and after a failed round of attempts again every 15 s. A round blocks the loop.

#include <exception>
#include <new>

#include "platform/Clock.h"
#include "rv/error/rvCodes.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

constexpr unsigned long kRetryMs = 15'000;            // between two rounds
constexpr platform::Milliseconds kNoTimerMs = 5'000;  // the same, when there is no timer to be had
constexpr platform::Milliseconds kStallMs = 60'000;   // a peer that takes no byte so long is gone

bool scheduleReconnect(rv_Session_& session, unsigned long delayMs);

void reconnect(rv_Session_& session) {
    while (!isClosing(session)) {
        if (connectAndIntroduce(session) == session_code::kOk) {
            session.hooks.run(RV_HOOK_RECONNECT, &session, nullptr);
            return;
        }
        if (isClosing(session) || scheduleReconnect(session, kRetryMs)) return;
        deliverNoMemory(session);
        platform::sleepMs(kNoTimerMs);
    }
}

void onReconnectTimer(void* owner, void* /*closure*/, int /*kind*/, void* /*entry*/) {
    rv_Session_& session = *static_cast<rv_Session>(owner);
    session.reconnectTimer = nullptr;
    reconnect(session);
}

bool scheduleReconnect(rv_Session_& session, unsigned long delayMs) {
    return session.events.addTimer(&session.reconnectTimer, delayMs, onReconnectTimer, nullptr) ==
           event_code::kOk;
}

void onMessage(ipq_Queue /*queue*/, wire::Bytes message, void* closure) {
    deliver(*static_cast<rv_Session>(closure), message);
}

void onPeerGone(ipq_Queue /*queue*/, ipq_State /*state*/, void* closure) {
    linkLost(*static_cast<rv_Session>(closure));
}

void onError(ipq_Queue /*queue*/, ipq_State /*state*/, void* closure) {
    deliverNoMemory(*static_cast<rv_Session>(closure));
}

}  // namespace

void watchLink(rv_Session_& session) {
    ipq_SetMessageCallback(session.queue, onMessage, &session);
    ipq_SetPeerGoneCallback(session.queue, onPeerGone, &session);
    ipq_SetErrorCallback(session.queue, onError, &session);
    ipq_SetStallLimit(session.queue, kStallMs);
    ipq_SetBlocking(session.queue, false);
}

void linkLost(rv_Session_& session) {
    if (session.queue == nullptr) return;
    const Entered entered(session);
    ipq_Queue queue = session.queue;
    session.queue = nullptr;
    ipq_Close(queue, false);
    session.hooks.run(RV_HOOK_DISCONNECT, &session, nullptr);
    if (!isClosing(session)) announceDisconnect(session);
    if (isClosing(session) || session.manager == nullptr || session.reconnectTimer != nullptr)
        return;
    if (scheduleReconnect(session, 0)) return;
    deliverNoMemory(session);
    reconnect(session);
}

}  // namespace kvx::session
