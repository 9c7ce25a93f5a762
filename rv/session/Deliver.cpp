// Delivering a message to the matching listeners.
//
// Messages are delivered one at a time and in order, from the link and from local calls: a message
// that arrives while callbacks run waits in the pending queue. A message from the link is delivered
// in place; only a waiting one is copied. The text forms of subject and reply are computed once a
// message, when the first record needs them.

#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
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
    Delivery(SessionState& session, wire::Bytes message, SubjectView subject)
        : session_(session), message_(message.data()), subject_(subject) {
        subjectText_[0] = '\0';
        encodedReply_[2] = 0;
    }

    /// False when a hook refused the message or its payload is unreadable.
    bool prepare() {
        if (session_.hooks.run(RV_HOOK_DELIVER, session_.handle(), message_) != 0) return false;
        reply_ = textField(message_, wire::field::kReturn);
        return readPayload();
    }

    void callBack(const ListenRecord& record) {
        const rv_DataCallback callback = record.callback;
        void* closure = record.closure;
        const char* subject = record.textSubjects ? subjectText() : encodedSubject();
        const char* reply = record.textSubjects ? reply_ : encodedReply();
        callback(session_.handle(), subject, reply, type_, size_, data_, closure);
    }

  private:
    bool readPayload() {
        const int code = rvmsg_Get(scratch_, message_, wire::field::kData, &type_, &size_, &data_);
        if (code == message_code::kNotFound) {
            type_ = RVMSG_NONE;
            size_ = 0;
            data_ = nullptr;
            return true;
        }
        return code == message_code::kOk;
    }

    const char* encodedSubject() const { return static_cast<const char*>(subject_.data()); }

    const char* subjectText() {
        if (subjectText_[0] == '\0')
            rvSubject_ToText(subjectText_, sizeof subjectText_, subject_.data());
        return subjectText_;
    }

    const char* encodedReply() {
        if (reply_ == nullptr) return nullptr;
        if (encodedReply_[2] == 0 &&
            rvSubject_FromText(encodedReply_, sizeof encodedReply_, reply_) < 0)
            return nullptr;
        return reinterpret_cast<const char*>(encodedReply_);
    }

    SessionState& session_;
    const std::uint8_t* message_;
    SubjectView subject_;
    const char* reply_ = nullptr;
    rvmsg_Type type_ = RVMSG_NONE;
    rvmsg_Size size_ = 0;
    rvmsg_Data data_ = nullptr;
    alignas(std::max_align_t) std::uint8_t scratch_[32];
    // Filled when first needed; until then an empty text and a subject without elements.
    char subjectText_[kMaxSubjectBytes];
    std::uint8_t encodedReply_[wire::kSubjectCapacity];
};

void reportUnhandled(wire::Bytes message) {
    std::fputs(advisory::kUnhandledHeading, stderr);
    rvmsg_PrintMsg(message.data(), stderr);
    std::fputs("\n", stderr);
}

void deliverOne(SessionState& session, wire::Bytes message) {
    const wire::Bytes encoded = wire::readRouting(message).subject;
    const auto subject = SubjectView::parse(encoded.data(), encoded.size());
    if (!subject) return;
    std::optional<Delivery> delivery;
    session.listens.match(*subject, [&](const ListenRecord& record) {
        if (!record.callable) return true;
        rv_Listener id = record.id;
        if (!delivery) {
            delivery.emplace(session, message, *subject);
            if (!delivery->prepare()) return false;
        }
        // A hook may have cancelled the record.
        const ListenRecord* called = session.listens.find(id);
        if (called != nullptr && !session.isClosed()) delivery->callBack(*called);
        return !session.isClosed();
    });
    if (!delivery && advisory::isReportable(*subject)) reportUnhandled(message);
}

// Without memory only this message is lost; the advisory follows the pending messages.
void deliverSafely(SessionState& session, wire::Bytes message) {
    try {
        deliverOne(session, message);
    } catch (const std::bad_alloc&) {
        session.noMemoryPending = message.data() != session.noMemoryAdvisory.bytes.get();
    }
}

// Delivers the next pending message; false when there is none.
bool deliverNextPending(SessionState& session) {
    if (session.isClosed()) return false;
    if (!session.pending.empty()) {
        const wire::OwnedMessage message = std::move(session.pending.front());
        session.pending.pop_front();
        deliverSafely(session, message.view());
        return true;
    }
    if (!std::exchange(session.noMemoryPending, false)) return false;
    deliverSafely(session, session.noMemoryAdvisory.view());
    return true;
}

void run(SessionState& session, wire::Bytes message) {
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

void onMessage(ipq_Queue /*queue*/, wire::Bytes message, void* closure) {
    deliver(*static_cast<SessionState*>(closure), message);
}

void onError(ipq_Queue /*queue*/, ipq_State /*state*/, void* closure) {
    deliverNoMemory(*static_cast<SessionState*>(closure));
}

}  // namespace

void deliver(SessionState& session, wire::Bytes message) {
    if (session.isClosed()) return;
    if (session.delivering)
        wait(session, message);
    else
        run(session, message);
}

void deliverNoMemory(SessionState& session) {
    if (session.isClosed()) return;
    if (session.delivering)
        session.noMemoryPending = true;
    else
        run(session, session.noMemoryAdvisory.view());
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
    deliver(session, built.message.view());
    return session_code::kOk;
}

}  // namespace kvx::session
