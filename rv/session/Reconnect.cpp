// Losing and restoring the link.
//
// A lost link is dropped at once: later calls find no link, and the advisory is delivered only
// once. An asynchronous session then connects from a timer: immediately, and 15 s after each failed
// round of attempts; a daemon that refuses the session is told of once. A round blocks the loop; a
// signal during it or just before cuts it short, and it begins again 250 ms later, after the loop
// has handled the signal. When restored links break within two seconds, one after another, the
// pauses double from 250 ms up to 15 s, so that a daemon that closes every new connection is not
// flooded.

#include <algorithm>
#include <exception>
#include <new>

#include "platform/Clock.h"
#include "platform/Signals.h"
#include "rv/error/rvCodes.h"
#include "rv/event/EventManagerExtras.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

constexpr unsigned long kRetryMs = 15'000;            // between two rounds
constexpr platform::Milliseconds kNoTimerMs = 5'000;  // without memory for a timer
constexpr platform::Milliseconds kSettledMs = 2'000;  // such a link resets the pause
constexpr unsigned long kFirstPauseMs = 250;          // after the first shorter link
constexpr platform::Milliseconds kCutShortMs = 250;   // for the loop to handle a signal
constexpr unsigned kMostDoublings = 6;                // of that pause, before kRetryMs is reached
constexpr platform::Milliseconds kStallMs = 60'000;   // without a byte taken by the peer

bool scheduleReconnect(SessionState& session, unsigned long delayMs);

void reconnect(SessionState& session) {
    while (!session.isClosed()) {
        session.roundBegin = platform::monotonicMs();
        const int code = connectAndIntroduce(session);
        if (code == session_code::kOk) {
            session.reconnectedAt = platform::monotonicMs();
            session.isRefusalTold = false;
            session.hooks.run(RV_HOOK_RECONNECT, session.handle(), nullptr);
            return;
        }
        if (code == session_code::kNotPermitted && !session.isClosed()) announceRefusal(session);
        if (session.isClosed() ||
            scheduleReconnect(session, isCutShort(session) ? kCutShortMs : kRetryMs))
            return;
        deliverNoMemory(session);
        platform::sleepMs(kNoTimerMs);
    }
}

void onReconnectTimer(void* /*owner*/, void* closure, int /*kind*/, void* /*entry*/) {
    SessionState& session = *static_cast<SessionState*>(closure);
    session.reconnectTimer = nullptr;
    reconnect(session);
}

// One timer at a time: a loss found by a hook of the handshake may have started it already.
bool scheduleReconnect(SessionState& session, unsigned long delayMs) {
    if (session.reconnectTimer != nullptr)
        return session.events.resetTimer(session.reconnectTimer, delayMs) == event_code::kOk;
    return session.events.addTimer(&session.reconnectTimer, delayMs, onReconnectTimer, &session) ==
           event_code::kOk;
}

unsigned long pauseAfterLoss(SessionState& session) {
    if (!session.reconnectedAt || platform::monotonicMs() - *session.reconnectedAt >= kSettledMs) {
        session.shortLinks = 0;
        return 0;
    }
    const unsigned doublings = std::min(session.shortLinks++, kMostDoublings);
    return std::min(kFirstPauseMs << doublings, kRetryMs);
}

void onPeerGone(ipq_Queue /*queue*/, ipq_State /*state*/, void* closure) {
    linkLost(*static_cast<SessionState*>(closure));
}

}  // namespace

bool isCutShort(const SessionState& session) {
    if (!session.roundBegin) return false;
    return platform::lastSignalMs() > *session.roundBegin - kCutShortMs ||
           event::isStopping(session.manager);
}

void watchLink(SessionState& session) {
    deliverFromLink(session);
    ipq_SetPeerGoneCallback(session.queue(), onPeerGone, &session);
    ipq_SetStallLimit(session.queue(), kStallMs);
    ipq_SetBlocking(session.queue(), false);
}

void linkLost(SessionState& session) {
    if (session.queue() == nullptr) return;
    const Entered entered(session);
    ipq_Close(session.takeQueue(), false);
    session.hooks.run(RV_HOOK_DISCONNECT, session.handle(), nullptr);
    if (!session.isClosed()) announceDisconnect(session);
    if (session.isClosed() || session.manager == nullptr || session.reconnectTimer != nullptr)
        return;
    if (scheduleReconnect(session, pauseAfterLoss(session))) return;
    deliverNoMemory(session);
    reconnect(session);
}

}  // namespace kvx::session
