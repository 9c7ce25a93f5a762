// The advisories that a session makes about itself, and those that applications publish.
//
// A session's own advisories (lost daemon, refusal by a restarted one, late timers, fast producer)
// are built in fixed buffers and delivered to the session's own listeners only. The fast-producer
// condition is announced for the first of every hundred occurrences. An application's advisory is a
// message body whose fields name its subject; it is published like data. `rv_SendAppAdvisory`
// refuses the system's source and subjects.

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "rv/error/rvAdvisory.h"
#include "rv/error/rvCodes.h"
#include "rv/error/rvErrors.h"
#include "rv/message/AdvisorySubjects.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

constexpr unsigned kGivenSubjectCapacity = 256;  // bytes, encoded, of an application's subject

struct Advisory {
    std::uint8_t body[advisory::kBodyCapacity];
    std::uint8_t subject[advisory::kSubjectCapacity];

    int build(const char* advisoryClass, const char* name, const char* description = nullptr) {
        return rv_BuildAdvisory(body, sizeof body, advisoryClass, advisory::kSystem, name,
                                description, subject, sizeof subject);
    }
    int deliverTo(SessionState& session) const {
        return deliverLocally(session, SubjectView::trusted(subject), nullptr,
                              {RVMSG_MSG, 0, body});
    }
};

struct AdvisoryFields {
    const char* advisoryClass;
    const char* source;
    const char* name;

    explicit AdvisoryFields(const void* body)
        : advisoryClass(textField(body, advisory::kClassField)),
          source(textField(body, advisory::kSourceField)),
          name(textField(body, advisory::kNameField)) {}

    [[nodiscard]] bool complete() const {
        return advisoryClass != nullptr && source != nullptr && name != nullptr;
    }
    // "_RV.<class>.<source>.<name>", encoded; nothing when it is not a valid subject.
    [[nodiscard]] std::optional<Subject> subject() const {
        const std::string text =
            std::string(kReservedElement) + "." + advisoryClass + "." + source + "." + name;
        return Subject::fromText(text.c_str(), advisory::kSubjectCapacity);
    }
};

bool isMessage(const void* body) {
    rvmsg_Size length = 0;
    return body != nullptr && rvmsg_Length(body, &length) == 0;
}

int publishBody(SessionState& session, const std::optional<Subject>& subject, const void* body,
                int codeOfBadSubject) {
    if (!subject) return codeOfBadSubject;
    const Entered entered(session);
    return publish(session, *subject, nullptr, {RVMSG_MSG, 0, body});
}

}  // namespace

void announceDisconnect(SessionState& session) {
    Advisory advisory;
    int code = advisory.build(advisory::kWarn, advisory::kDisconnectedName);
    if (code == 0) code = advisory.deliverTo(session);
    if (code != 0)
        std::fprintf(stderr, "Rendezvous unable to build disconnected message (err = %d).\n", code);
}

void announceRefusal(SessionState& session) {
    Advisory advisory;
    if (std::exchange(session.isRefusalTold, true)) return;
    if (advisory.build(advisory::kError, advisory::kRefusedName, kNotAllowed) == 0)
        (void)advisory.deliverTo(session);
}

void announceStarvation(SessionState& session, std::uint32_t latenessMs) {
    Advisory advisory;
    int code = advisory.build(advisory::kWarn, advisory::kStarvationName);
    if (code == 0)
        code = rvmsg_Append(advisory.body, sizeof advisory.body, advisory::kLatenessField,
                            RVMSG_UINT, sizeof latenessMs, &latenessMs);
    if (code == 0) code = advisory.deliverTo(session);
    if (code != 0)
        std::fprintf(stderr, "Rendezvous unable to build event starvation message (err = %d).\n",
                     code);
}

void announceFastProducer(SessionState& session, const char* advisoryClass) {
    if (++session.fastProducerConditions % advisory::kFastProducerRate != 1) return;
    Advisory advisory;
    if (const int code = advisory.build(advisoryClass, advisory::kFastProducerName); code != 0) {
        std::fprintf(stderr, "Failed to build fast producer advisory (%s).\n",
                     rvmsg_CoreErrorText(code));
        return;
    }
    if (const int code = advisory.deliverTo(session); code != 0)
        std::fprintf(stderr, "Failed to deliver fast producer adivsory (%s)\n", rv_ErrorText(code));
}

}  // namespace kvx::session

namespace session = kvx::session;
namespace session_code = kvx::session_code;
namespace message_code = kvx::message_code;
namespace wire = kvx::wire;
namespace advisory = kvx::advisory;
using kvx::Subject;

int rv_SendAdvisory(rv_Session handle, const char* subject, const void* body) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (!session::isMessage(body)) return session_code::kOk;
    const session::AdvisoryFields fields(body);
    if (!fields.complete()) return session_code::kInvalidArgument;
    if (subject == nullptr)
        return session::publishBody(*session, fields.subject(), body,
                                    session_code::kInvalidArgument);
    return session::publishBody(*session, Subject::fromText(subject, wire::kSubjectCapacity), body,
                                session_code::kInvalidSubject);
}

int rv_SendAppAdvisory(rv_Session handle, const char* subject, const void* body) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    if (!session::isMessage(body)) return session_code::kOk;
    const session::AdvisoryFields fields(body);
    if (!fields.complete()) return session_code::kInvalidArgument;
    if (std::string_view(fields.source) == advisory::kSystem) return message_code::kInvalidName;
    if (subject == nullptr)
        return session::publishBody(*session, fields.subject(), body,
                                    session_code::kInvalidArgument);
    const auto given = Subject::fromText(subject, session::kGivenSubjectCapacity);
    if (!given || advisory::isSystemSubject(*given)) return message_code::kInvalidName;
    return session::publishBody(*session, given, body, message_code::kInvalidName);
}
