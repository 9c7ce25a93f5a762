// Publishing: a short message is built on the stack and copied into the segment that the link's
// queue packs; a longer one is built in one allocation, which the queue takes over.
//
// The order of the checks is part of the contract: subject, connection, payload. The publish hooks
// see the built message and may refuse it. A message that the queue's limit refuses gives 20, one
// that drops an older message counts as sent; both raise the fast-producer advisory at error level,
// and a long queue raises it at warning level. A broken link is handled as lost at once.

#include <cstring>
#include <utility>

#include "rv/error/rvAdvisory.h"
#include "rv/error/rvCodes.h"
#include "rv/message/AdvisorySubjects.h"
#include "rv/message/rvSubject.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

constexpr std::uint32_t kShortMessage = 4'096;  // bytes

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

int queued(SessionState& session, bool isQueued) {
    if (!isQueued)
        return queueingFailed(session, ipq_StateOf(session.queue()), ipq_WasKept(session.queue()));
    if (ipq_WaitingMessages(session.queue()) >= advisory::kFastProducerThreshold)
        announceFastProducer(session, advisory::kWarn);
    return session_code::kOk;
}

}  // namespace

const std::uint8_t* PublishedSubject::encode(const char* text) {
    if (text_[0] != 0 && std::strcmp(text_, text) == 0) return encoded_;
    text_[0] = 0;
    if (rvSubject_FromText(encoded_, sizeof encoded_, text) < 0) return nullptr;
    if (advisory::isSystemSubject(SubjectView::trusted(encoded_))) return nullptr;
    std::memcpy(text_, text, std::strlen(text) + 1);  // shorter than the encoded form
    return encoded_;
}

int queueMessage(SessionState& session, wire::OwnedMessage message) {
    if (session.queue() == nullptr) return session_code::kNotConnected;
    return queued(session, ipq_Enqueue(session.queue(), std::move(message), false));
}

int queueMessage(SessionState& session, wire::Bytes message) {
    if (session.queue() == nullptr) return session_code::kNotConnected;
    return queued(session, ipq_EnqueueCopy(session.queue(), message));
}

int publish(SessionState& session, SubjectView subject, const char* reply,
            const wire::Payload& payload) {
    const wire::DataMessage data(bytesOf(subject), reply, session.flavour.id, payload);
    if (data.code() != 0) return codeOfBuild(data.code(), payload.size == 0);
    const bool isShort = data.capacity() <= kShortMessage;
    std::uint8_t shortMessage[kShortMessage];
    wire::OwnedMessage owned;
    if (!isShort) owned = wire::OwnedMessage::allocate(data.capacity());
    std::uint8_t* const message = isShort ? shortMessage : owned.bytes.get();
    if (message == nullptr) return session_code::kNoMemory;
    if (const int code = data.writeTo(message); code != 0)
        return codeOfBuild(code, payload.size == 0);
    if (const int refused = session.hooks.run(RV_HOOK_PUBLISH, session.handle(), message);
        refused != 0)
        return refused;
    return isShort ? queueMessage(session, wire::Bytes(message, loadBig32(message)))
                   : queueMessage(session, std::move(owned));
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
    const std::uint8_t* const encoded = session->published.encode(subject);
    if (encoded == nullptr) return session_code::kInvalidSubject;
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
    const std::uint8_t* const encoded = session->published.encode(subject);
    if (encoded == nullptr) return session_code::kInvalidSubject;
    if (!session::isSendable(type, data)) return session_code::kNoMemory;
    const session::Entered entered(*session);
    return session::deliverLocally(*session, SubjectView::trusted(encoded), reply,
                                   {type, size, data});
}
