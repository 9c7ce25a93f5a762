// Running a session, and the state and properties of its connection.

#include <cstring>
#include <string_view>

#include "platform/Socket.h"
#include "rv/error/rvCodes.h"
#include "rv/event/TimeValue.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

constexpr std::string_view kQueueProperty = "ipqProperties";

int runLoop(SessionState& session) {
    const Entered entered(session);
    session.inLoop = true;
    const int code = rvevm_MainLoop(session.manager);
    session.inLoop = false;
    return code == 0 ? session_code::kOk : session_code::kInitFailed;
}

int dispatch(SessionState& session, platform::Milliseconds timeout) {
    const Entered entered(session);
    const ipq_State state = ipq_DispatchOne(session.queue(), timeout);
    return state == IPQ_OK || state == IPQ_EMPTY ? session_code::kOk : session_code::kNotConnected;
}

int flush(SessionState& session, platform::Milliseconds timeout) {
    const Entered entered(session);
    switch (ipq_Flush(session.queue(), timeout)) {
        case IPQ_OK:
            return session_code::kOk;
        case IPQ_EMPTY:
            return platform::socket_error::kTimedOut;
        default:
            linkLost(session);
            return session_code::kNotConnected;
    }
}

void adoptProperties(SessionState& session, const ipq_Properties& properties) {
    session.properties = properties;
    if (session.queue() != nullptr) ipq_SetProperties(session.queue(), properties);
}

}  // namespace

}  // namespace kvx::session

namespace session = kvx::session;
namespace session_code = kvx::session_code;
namespace event_code = kvx::event_code;

int rv_RunOnce(rv_Session handle) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (session->manager == nullptr || session->inLoop) return session_code::kOk;
    return session::runLoop(*session);
}

int rv_StopLoop(rv_Session handle) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (session->manager == nullptr) return event_code::kSynchronous;
    return rvevm_Stop(session->manager);
}

int rv_Dispatch(rv_Session handle, unsigned long timeoutMs) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (session->manager != nullptr) return session_code::kInvalidArgument;
    if (session->queue() == nullptr) return session_code::kNotConnected;
    return session::dispatch(*session, kvx::event::limitedMs(timeoutMs));
}

int rv_Flush(rv_Session handle, unsigned long timeoutMs) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (session->queue() == nullptr) return session_code::kNotConnected;
    return session::flush(*session, kvx::event::limitedMs(timeoutMs));
}

int rv_Pending(rv_Session handle, unsigned long* messages, unsigned long* bytes) {
    if (messages != nullptr) *messages = 0;
    if (bytes != nullptr) *bytes = 0;
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (session->queue() == nullptr) return session_code::kOk;
    if (messages != nullptr) *messages = ipq_WaitingMessages(session->queue());
    if (bytes != nullptr) *bytes = ipq_WaitingBytes(session->queue());
    return session_code::kOk;
}

int rv_SetProperty(rv_Session handle, const char* name, const void* record) {
    session::SessionState* const session = session::find(handle);
    if (handle != nullptr && session == nullptr) return session_code::kInvalidSession;
    if (name == nullptr || record == nullptr || name != session::kQueueProperty)
        return session_code::kInvalidArgument;
    ipq_Properties properties;
    std::memcpy(&properties, record, sizeof properties);
    if (session == nullptr)
        session::setProcessLinkProperties(properties);
    else
        session::adoptProperties(*session, properties);
    return session_code::kOk;
}

void rv_SetTraceLevel(const int* level) {
    kvx::link::setTraceLevel(level);
}
