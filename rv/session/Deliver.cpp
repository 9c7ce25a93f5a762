// From a message to the listeners it reaches.
//
// Messages are delivered one at a time and in order, whoever brings them: what arrives while
// callbacks run waits in the pending queue. A message that comes straight from the link is
// delivered where it lies; only what has to wait is copied. The forms of subject and reply that the
// records ask for are computed once a message, when the first record asks.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "rv/error/rvAdvisory.h"
#include "rv/error/rvCodes.h"
#include "rv/message/rvSubject.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

std::optional<SubjectView> subjectOf(const std::uint8_t* message) {
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (rvmsg_GetRaw(message, wire::field::kSubject, &type, &size, &data) != 0 ||
        type != RVMSG_SUBJECT)
        return std::nullopt;
    return SubjectView::parse(data, size);
}

// The dotted reply subject; null when the message has none.
const char* replyOf(const std::uint8_t* message) {
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
    if (rvmsg_GetRaw(message, wire::field::kReturn, &type, &size, &data) != 0 ||
        type != RVMSG_STRING || size < 2 || std::memchr(data, 0, size) == nullptr)
        return nullptr;
    const char* text = static_cast<const char*>(data);
    return *text == '\0' ? nullptr : text;
}

/// One message on its way to the listeners.
class Delivery {
  public:
    Delivery(SessionState& session, const std::uint8_t* message, SubjectView subject)
        : session_(session), message_(message), subject_(subject) {
        subjectText_[0] = '\0';
        encodedReply_[2] = 0;
    }

    /// False when the message goes to nobody: a hook or an unreadable payload.
    bool prepare() {
        if (session_.hooks.run(RV_HOOK_DELIVER, session_.handle(), message_) != 0) return false;
        reply_ = replyOf(message_);
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
    // Filled when the first record asks: an empty text, a subject without elements before that.
    char subjectText_[kMaxSubjectBytes];
    std::uint8_t encodedReply_[wire::kSubjectCapacity];
};

void reportUnhandled(const std::uint8_t* message) {
    std::fputs(advisory::kUnhandledHeading, stderr);
    rvmsg_PrintMsg(message, stderr);
    std::fputs("\n", stderr);
}

void deliverOne(SessionState& session, const std::uint8_t* message) {
    const auto subject = subjectOf(message);
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
        if (called != nullptr && !isClosing(session)) delivery->callBack(*called);
        return !isClosing(session);
    });
    if (!delivery && advisory::isReportable(*subject)) reportUnhandled(message);
}

// Memory that runs out costs this message only, and is told behind what waits.
void deliverSafely(SessionState& session, const std::uint8_t* message) {
    try {
        deliverOne(session, message);
    } catch (const std::bad_alloc&) {
        session.noMemoryPending = message != session.noMemoryAdvisory.bytes.get();
    }
}

// Delivers what came while callbacks ran; false when there was nothing.
bool deliverNextPending(SessionState& session) {
    if (isClosing(session)) return false;
    if (!session.pending.empty()) {
        const wire::OwnedMessage message = std::move(session.pending.front());
        session.pending.pop_front();
        deliverSafely(session, message.bytes.get());
        return true;
    }
    if (!std::exchange(session.noMemoryPending, false)) return false;
    deliverSafely(session, session.noMemoryAdvisory.bytes.get());
    return true;
}

void run(SessionState& session, const std::uint8_t* message) {
    const Entered entered(session);
    session.delivering = true;
    deliverSafely(session, message);
    while (deliverNextPending(session)) {
    }
    session.delivering = false;
}

void wait(SessionState& session, wire::Bytes message) {
    wire::OwnedMessage copy;
    copy.bytes.reset(static_cast<std::uint8_t*>(std::malloc(message.size())));
    if (!copy.bytes) {
        session.noMemoryPending = true;
        return;
    }
    copy.capacity = static_cast<std::uint32_t>(message.size());
    std::memcpy(copy.bytes.get(), message.data(), message.size());
    try {
        session.pending.push_back(std::move(copy));
    } catch (const std::bad_alloc&) {
        session.noMemoryPending = true;
    }
}

}  // namespace

void deliver(SessionState& session, wire::Bytes message) {
    if (isClosing(session)) return;
    if (session.delivering)
        wait(session, message);
    else
        run(session, message.data());
}

void deliverNoMemory(SessionState& session) {
    if (isClosing(session)) return;
    if (session.delivering)
        session.noMemoryPending = true;
    else
        run(session, session.noMemoryAdvisory.bytes.get());
}

int deliverLocally(SessionState& session, SubjectView subject, const char* reply,
                   const wire::Payload& payload) {
    const wire::Built built = wire::buildData(bytesOf(subject), reply, session.flavour.id, payload);
    if (built.code != 0) return codeOfBuild(built.code, payload.size == 0);
    deliver(session, built.message.view());
    return session_code::kOk;
}

}  // namespace kvx::session
