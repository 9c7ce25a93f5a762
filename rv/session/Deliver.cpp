// Delivering a message to the matching listeners.
//
// Messages are delivered one at a time and in order, from the link and from local calls: a message
// that arrives while callbacks run waits in the pending queue. A message from the link is delivered
// in place; only a waiting one is copied. Whom a subject reaches, and its text, is known from the
// message before when that was on the same subject (`ListenTable::reach`); each listener is looked
// up again before its call, since a callback may have cancelled it.

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "rv/error/rvAdvisory.h"
#include "rv/error/rvCodes.h"
#include "rv/message/AdvisorySubjects.h"
#include "rv/message/rvSubject.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

/// The delivery of one message.
class Delivery {
  public:
    Delivery(SessionState& session, const wire::Envelope& message,
             const ListenTable::Reached& reached)
        : session_(session), message_(message), reached_(reached) {
        encodedReply_[2] = 0;
    }

    /// Calls the listeners back. False when there are none.
    bool run() {
        bool isPrepared = false;
        for (rv_Listener id : reached_.listeners) {
            const ListenRecord* record = session_.listens.find(id);
            if (record == nullptr || !record->callable) continue;
            if (!std::exchange(isPrepared, true)) {
                const bool isHooked = !session_.hooks.empty(RV_HOOK_DELIVER);
                if (!prepare()) break;
                if (isHooked) record = session_.listens.find(id);  // a hook may have cancelled it
            }
            if (session_.isClosed()) break;
            if (record != nullptr) callBack(*record);
        }
        return isPrepared;
    }

  private:
    /// False when a hook refused the message or its payload is unreadable.
    bool prepare() {
        if (session_.hooks.run(RV_HOOK_DELIVER, session_.handle(), message_.bytes.data()) != 0)
            return false;
        reply_ = message_.replyText();
        if (message_.data.type == RVMSG_BADDATA) return true;
        type_ = message_.data.type;
        return decodeField(message_.data, scratch_, size_, data_);
    }

    void callBack(const ListenRecord& record) {
        const char* subject = record.textSubjects ? reached_.text.c_str() : reached_.subject.data();
        const char* reply = record.textSubjects ? reply_ : encodedReply();
        record.callback(session_.handle(), subject, reply, type_, size_, data_, record.closure);
    }

    const char* encodedReply() {
        if (reply_ == nullptr) return nullptr;
        if (encodedReply_[2] == 0 &&
            rvSubject_FromText(encodedReply_, sizeof encodedReply_, reply_) < 0)
            return nullptr;
        return reinterpret_cast<const char*>(encodedReply_);
    }

    SessionState& session_;
    const wire::Envelope& message_;
    const ListenTable::Reached& reached_;
    const char* reply_ = nullptr;
    rvmsg_Type type_ = RVMSG_NONE;
    rvmsg_Size size_ = 0;
    rvmsg_Data data_ = nullptr;
    alignas(std::max_align_t) std::uint8_t scratch_[32];
    std::uint8_t encodedReply_[wire::kSubjectCapacity];  // made when first needed; until then empty
};

void reportUnhandled(wire::Bytes message) {
    std::fputs(advisory::kUnhandledHeading, stderr);
    rvmsg_PrintMsg(message.data(), stderr);
    std::fputs("\n", stderr);
}

void deliverOne(SessionState& session, const wire::Envelope& message) {
    const ListenTable::Reached* const reached = session.listens.reach(message.subject);
    if (reached == nullptr) return;
    if (!Delivery(session, message, *reached).run() && advisory::isReportable(reached->view()))
        reportUnhandled(message.bytes);
}

// Without memory only this message is lost; the advisory follows the pending messages.
void deliverSafely(SessionState& session, const wire::Envelope& message) {
    try {
        deliverOne(session, message);
    } catch (const std::bad_alloc&) {
        session.noMemoryPending = message.bytes.data() != session.noMemoryAdvisory.bytes.get();
    }
}

// Delivers the next pending message; false when there is none.
bool deliverNextPending(SessionState& session) {
    if (session.isClosed()) return false;
    if (!session.pending.empty()) {
        const wire::OwnedMessage message = std::move(session.pending.front());
        session.pending.pop_front();
        deliverSafely(session, wire::readEnvelope(message.view()));
        return true;
    }
    if (!std::exchange(session.noMemoryPending, false)) return false;
    deliverSafely(session, wire::readEnvelope(session.noMemoryAdvisory.view()));
    return true;
}

void run(SessionState& session, const wire::Envelope& message) {
    const Entered entered(session);
    session.delivering = true;
    deliverSafely(session, message);
    while (deliverNextPending(session)) {
    }
    session.delivering = false;
}

void wait(SessionState& session, wire::Bytes message) {
    auto copy = wire::OwnedMessage::copyOf(message);
    session.noMemoryPending = session.noMemoryPending || !copy.bytes;
    try {
        if (copy.bytes) session.pending.push_back(std::move(copy));
    } catch (const std::bad_alloc&) {
        session.noMemoryPending = true;
    }
}

void onMessage(ipq_Queue /*queue*/, const wire::Envelope& message, void* closure) {
    deliver(*static_cast<SessionState*>(closure), message);
}

void onError(ipq_Queue /*queue*/, ipq_State /*state*/, void* closure) {
    deliverNoMemory(*static_cast<SessionState*>(closure));
}

}  // namespace

void deliver(SessionState& session, const wire::Envelope& message) {
    if (session.isClosed()) return;
    if (session.delivering)
        wait(session, message.bytes);
    else
        run(session, message);
}

void deliverNoMemory(SessionState& session) {
    if (session.isClosed()) return;
    if (session.delivering)
        session.noMemoryPending = true;
    else
        run(session, wire::readEnvelope(session.noMemoryAdvisory.view()));
}

void deliverFromLink(SessionState& session) {
    ipq_SetMessageCallback(session.queue(), onMessage, &session);
    ipq_SetErrorCallback(session.queue(), onError, &session);
}

const char* textField(const void* message, const char* name) {
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (rvmsg_GetRaw(message, name, &type, &size, &data) != 0 || type != RVMSG_STRING || size < 2 ||
        std::memchr(data, 0, size) == nullptr)
        return nullptr;
    const char* text = static_cast<const char*>(data);
    return *text == '\0' ? nullptr : text;
}

int deliverLocally(SessionState& session, SubjectView subject, const char* reply,
                   const wire::Payload& payload) {
    const wire::Built built = wire::buildData(bytesOf(subject), reply, session.flavour.id, payload);
    if (built.code != 0) return codeOfBuild(built.code, payload.size == 0);
    deliver(session, wire::readEnvelope(built.message.view()));
    return session_code::kOk;
}

}  // namespace kvx::session
