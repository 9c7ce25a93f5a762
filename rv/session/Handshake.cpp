// The session introduces itself to its daemon after every connect.
//
// The answer to a first init message has the client's address as the daemon sees it, from which the
// session's name is made; a second init sends name and control inbox. Then every subscription is
// announced, and the wildcard that covers all inboxes under the name. Inboxes made under an earlier
// name stay valid: the wildcards of such names are announced too, as long as one of their inboxes
// is listened on.
//
// The link is in blocking mode meanwhile. Nothing here calls user code except the listen hooks.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "platform/Process.h"
#include "rv/error/rvCodes.h"
#include "rv/error/rvErrors.h"
#include "rv/message/WireReader.h"
#include "rv/session/ConnectReport.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

constexpr platform::Milliseconds kReplyMs = 10'000;  // for the daemon's answer, and for our writes

int send(SessionState& session, wire::Built built) {
    if (built.code != 0) return codeOfBuild(built.code);
    if (session.queue() == nullptr)
        return session_code::kNotConnected;  // a hook closed the session or lost the link
    if (ipq_Enqueue(session.queue(), std::move(built.message), false) ||
        ipq_WasKept(session.queue()))
        return ipq_StateOf(session.queue()) == IPQ_PEER_GONE ? session_code::kNotConnected
                                                             : session_code::kOk;
    return ipq_StateOf(session.queue()) == IPQ_NO_MEMORY ? session_code::kNoMemory
                                                         : session_code::kNotConnected;
}

int sendInit(SessionState& session, bool named) {
    std::string control;
    if (const ListenRecord* record = session.listens.find(session.control))
        control = record->subject.view().text();
    wire::InitFields fields;
    fields.userId = session.user.c_str();
    fields.session = named ? session.name.c_str() : nullptr;
    fields.service = session.service.c_str();
    fields.network = session.network.c_str();
    fields.control = control.empty() ? nullptr : control.c_str();
    fields.flavour = session.flavour.view();
    return send(session, wire::buildInit(fields));
}

std::string makeName(const SessionState& session) {
    char name[96];
    std::snprintf(name, sizeof name, "%08lX.%lX%lX%lX",
                  static_cast<unsigned long>(loadBig32(&session.clientAddress)),
                  platform::processId(), static_cast<unsigned long>(session.created),
                  session.identity);
    return name;
}

void adoptName(SessionState& session) {
    std::string name = makeName(session);
    if (name == session.name) return;
    std::erase(session.formerNames, name);
    if (!session.name.empty()) session.formerNames.push_back(std::move(session.name));
    session.name = std::move(name);
}

int readReply(SessionState& session) {
    const wire::Bytes message = ipq_ReadWithin(session.queue(), kReplyMs);
    if (message.empty()) return session_code::kNotConnected;
    const wire::Reply reply = wire::readReply(message);
    if (reply.code != 0) return reply.code;
    session.clientAddress = reply.ipAddress;
    session.clientPort = reply.ipPort;
    adoptName(session);
    return session_code::kOk;
}

int provideControlInbox(SessionState& session) {
    if (session.control != nullptr) return session_code::kOk;
    return addPrivateInbox(session, &session.control);
}

// A listen message, unless a hook refuses it or cancels the record `id` (null: there is none); a
// hook may also close the session or lose the link.
int sendListen(SessionState& session, wire::Built built, rv_Listener id) {
    if (built.code == 0 &&
        (session.hooks.run(RV_HOOK_LISTEN, session.handle(), built.message.bytes.get()) != 0 ||
         (id != nullptr && !session.listens.setAnnounced(id, true))))
        return session.queue() != nullptr ? session_code::kOk : session_code::kNotConnected;
    return send(session, std::move(built));
}

int announceRecords(SessionState& session) {
    const auto ids = session.listens.ordered();
    for (rv_Listener id : ids) session.listens.setAnnounced(id, false);  // on this connection
    for (rv_Listener id : ids) {
        const ListenRecord* record = session.listens.find(id);  // a hook may have cancelled it
        if (record == nullptr || isInbox(record->subject)) continue;
        const int code = sendListen(session, listenMessage(session, *record), id);
        if (code != 0) return code;
    }
    return session_code::kOk;
}

int announceInboxesOf(SessionState& session, const std::string& name) {
    const auto subject =
        Subject::fromText((inboxPrefix(name) + ">").c_str(), wire::kSubjectCapacity);
    if (!subject) return session_code::kInvalidSubject;
    return sendListen(session, wire::buildListen(bytesOf(*subject), nullptr, session.flavour.id),
                      nullptr);
}

// A name is in use while one of its inboxes is listened on.
void forgetUnusedNames(SessionState& session) {
    const auto records = session.listens.ordered();
    std::erase_if(session.formerNames, [&](const std::string& name) {
        const std::string prefix = inboxPrefix(name);
        return std::ranges::none_of(records, [&](rv_Listener id) {
            const ListenRecord* record = session.listens.find(id);
            return isInbox(record->subject) && record->subject.view().text().starts_with(prefix);
        });
    });
}

int announceInboxes(SessionState& session) {
    if (!session.formerNames.empty()) forgetUnusedNames(session);
    int code = announceInboxesOf(session, session.name);
    for (std::size_t i = 0; i < session.formerNames.size() && code == 0; ++i)
        code = announceInboxesOf(session, session.formerNames[i]);
    return code;
}

int introduce(SessionState& session) {
    int code = sendInit(session, false);
    if (code == 0) code = readReply(session);
    if (code == 0) code = provideControlInbox(session);
    if (code == 0) code = sendInit(session, true);
    if (code == 0) code = announceRecords(session);
    if (code == 0) code = announceInboxes(session);
    return code;
}

int report(int code, const char* lost) {
    const char* why = rv_ErrorText(code);
    if (code == session_code::kNotConnected) why = lost;
    if (code == session_code::kNotPermitted) why = kNotAllowed;
    if (*why != '\0') ConnectReport::ofThisThread().add(why);
    return code;
}

int withoutThrowing(int (*step)(SessionState&), SessionState& session) {
    try {
        return step(session);
    } catch (const std::bad_alloc&) {
        return session_code::kNoMemory;
    }
}

}  // namespace

int connectAndIntroduce(SessionState& session) {
    ConnectReport::ofThisThread().begin();
    if (const int code = withoutThrowing(connectLink, session); code != 0) return report(code, "");
    ipq_SetStallLimit(session.queue(), kReplyMs);
    ipq_SetBlocking(session.queue(), true);
    const int code = withoutThrowing(introduce, session);
    if (session.queue() == nullptr)  // a hook closed the session or lost the link
        return code != 0 ? code : session_code::kNotConnected;
    if (code != 0) {
        ipq_Close(session.takeQueue(), false);
        return report(code, "the connection ended amid the handshake");
    }
    watchLink(session);
    return session_code::kOk;
}

}  // namespace kvx::session
