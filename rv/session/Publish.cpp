// Publishing: each message is built in one allocation, which the link's queue takes over.
//
// The order of the checks is part of the contract: subject, connection, payload. The publish hooks
// see the built message and may refuse it. A message that the queue's limit refuses gives 20, one
// that drops an older message counts as sent; both raise the fast-producer advisory at error level,
// and a long queue raises it at warning level. A broken link is handled as lost at once.

#include <new>
#include <utility>

#include "rv/error/rvAdvisory.h"
#include "rv/error/rvCodes.h"
#include "rv/message/AdvisorySubjects.h"
#include "rv/message/rvSubject.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

using SubjectBuffer = std::uint8_t[wire::kSubjectCapacity];

// The encoded form of a subject that user code may publish on; 21 otherwise.
int encodePublic(const char* subject, SubjectBuffer& encoded) {
    if (rvSubject_FromText(encoded, sizeof encoded, subject) < 0)
        return session_code::kInvalidSubject;
    return advisory::isSystemSubject(SubjectView::trusted(encoded)) ? session_code::kInvalidSubject
                                                                    : session_code::kOk;
}

bool isSendable(rvmsg_Type type, rvmsg_Data data) {
    return data != nullptr || type == RVMSG_NONE;
}

// Handles a failed `ipq_Enqueue`. `kept`: the message is queued, but another one was dropped.
int queueingFailed(SessionState& session, ipq_State state, bool kept) {
    switch (state) {
        case IPQ_NO_MEMORY:
            return session_code::kNoMemory;
        case IPQ_LIMIT_EXCEEDED:
            announceFastProducer(session, advisory::kError);
            return kept ? session_code::kOk : session_code::kNoMemory;
        default:
            linkLost(session);
            return session_code::kNotConnected;
    }
}

}  // namespace

int queueMessage(SessionState& session, wire::OwnedMessage message) {
    if (session.queue() == nullptr) return session_code::kNotConnected;
    if (!ipq_Enqueue(session.queue(), std::move(message), false))
        return queueingFailed(session, ipq_StateOf(session.queue()), ipq_WasKept(session.queue()));
    if (ipq_WaitingMessages(session.queue()) >= advisory::kFastProducerThreshold)
        announceFastProducer(session, advisory::kWarn);
    return session_code::kOk;
}

int publish(SessionState& session, SubjectView subject, const char* reply,
            const wire::Payload& payload) {
    wire::Built built = wire::buildData(bytesOf(subject), reply, session.flavour.id, payload);
    if (built.code != 0) return codeOfBuild(built.code, payload.size == 0);
    if (const int refused =
            session.hooks.run(RV_HOOK_PUBLISH, session.handle(), built.message.bytes.get());
        refused != 0)
        return refused;
    return queueMessage(session, std::move(built.message));
}

}  // namespace kvx::session

namespace session = kvx::session;
namespace session_code = kvx::session_code;
namespace wire = kvx::wire;
using kvx::SubjectView;

int rv_Send(rv_Session handle, const char* subject, const char* reply, rvmsg_Type type,
            rvmsg_Size size, rvmsg_Data data) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (subject == nullptr) return session_code::kInvalidArgument;
    session::SubjectBuffer encoded;
    if (const int code = session::encodePublic(subject, encoded); code != 0) return code;
    if (session->queue() == nullptr) return session_code::kNotConnected;
    if (!session::isSendable(type, data)) return session_code::kNoMemory;
    const session::Entered entered(*session);
    return session::publish(*session, SubjectView::trusted(encoded), reply, {type, size, data});
}

int rv_SendRequest(rv_Session handle, rv_Listener* listener, const char* subject, rvmsg_Type type,
                   rvmsg_Size size, rvmsg_Data data, rv_DataCallback callback, void* closure) {
    if (listener != nullptr) *listener = nullptr;
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (listener == nullptr || subject == nullptr) return session_code::kInvalidArgument;
    const session::Entered entered(*session);
    char inbox[wire::kInboxCapacity];
    int code = rv_CreateInbox(handle, listener, inbox, sizeof inbox, callback, closure);
    if (code != 0) return code;
    rv_Listener made = *listener;  // user code called by the send may reuse the variable
    code = rv_Send(handle, subject, inbox, type, size, data);
    if (code != 0) {
        session->listens.remove(made);
        if (*listener == made) *listener = nullptr;
    }
    return code;
}

int rv_Deliver(rv_Session handle, const char* subject, const char* reply, rvmsg_Type type,
               rvmsg_Size size, rvmsg_Data data) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (subject == nullptr) return session_code::kInvalidArgument;
    session::SubjectBuffer encoded;
    if (const int code = session::encodePublic(subject, encoded); code != 0) return code;
    if (!session::isSendable(type, data)) return session_code::kNoMemory;
    const session::Entered entered(*session);
    return session::deliverLocally(*session, SubjectView::trusted(encoded), reply,
                                   {type, size, data});
}
