// The link breaks and comes back.
//
// A lost link is dropped at once: later calls find no link, and the advisory is delivered only
// once. An asynchronous session then tries to connect from a timer: at once, and after a failed
// round of attempts again every 15 s. A round blocks the loop; a signal that comes during it or
// came just before cuts it short, and it is begun again 250 ms later: the loop has handled it then.
// When links that rounds have brought break within two seconds, one after the other, the pauses
// double from 250 ms up to the 15 s: a daemon that closes what it has just accepted is not asked
// again and again.

#include <algorithm>
#include <exception>
#include <new>

#include "platform/Clock.h"
#include "platform/Signals.h"
#include "rv/error/rvCodes.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

constexpr unsigned long kRetryMs = 15'000;            // between two rounds
constexpr platform::Milliseconds kNoTimerMs = 5'000;  // the same without memory for a timer
constexpr platform::Milliseconds kSettledMs = 2'000;  // a link that lasts so long is established
constexpr unsigned long kFirstPauseMs = 250;          // after the first one that is not
constexpr platform::Milliseconds kCutShortMs = 250;   // for the loop to handle a signal
constexpr unsigned kMostDoublings = 6;                // of that pause, before kRetryMs is reached
constexpr platform::Milliseconds kStallMs = 60'000;   // a peer that takes no byte so long is gone

bool scheduleReconnect(SessionState& session, unsigned long delayMs);

void reconnect(SessionState& session) {
    while (!session.isClosed()) {
        session.roundBegin = platform::monotonicMs();
        if (connectAndIntroduce(session) == session_code::kOk) {
            session.reconnectedAt = platform::monotonicMs();
            session.hooks.run(RV_HOOK_RECONNECT, session.handle(), nullptr);
            return;
        }
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

// There is one timer at a time: a loss that a hook of the handshake discovers starts one, too.
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
    return session.roundBegin && platform::lastSignalMs() > *session.roundBegin - kCutShortMs;
}

void watchLink(SessionState& session) {
    deliverFromLink(session);
    ipq_SetPeerGoneCallback(session.queue, onPeerGone, &session);
    ipq_SetStallLimit(session.queue, kStallMs);
    ipq_SetBlocking(session.queue, false);
}

void linkLost(SessionState& session) {
    if (session.queue == nullptr) return;
    const Entered entered(session);
    ipq_Queue queue = session.queue;
    session.queue = nullptr;
    ipq_Close(queue, false);
    session.hooks.run(RV_HOOK_DISCONNECT, session.handle(), nullptr);
    if (!session.isClosed()) announceDisconnect(session);
    if (session.isClosed() || session.manager == nullptr || session.reconnectTimer != nullptr)
        return;
    if (scheduleReconnect(session, pauseAfterLoss(session))) return;
    deliverNoMemory(session);
    reconnect(session);
}

}  // namespace kvx::session
