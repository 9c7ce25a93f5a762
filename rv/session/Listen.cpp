// Listening: records, companion inboxes and the messages that announce them.
//
// The first element of a subject decides. Below "_INBOX" a record is local and never announced,
// since the daemon routes inbox messages by the wildcard announced at the handshake. Below "_RV" it
// is announced without a reply inbox. Any other record is announced with an inbox of its own.

#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/message/rvSubject.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

void ignoreDelivery(rv_Session, const char*, const char*, rvmsg_Type, rvmsg_Size, rvmsg_Data,
                    void*) {}

int addRecord(rv_Session_& session, rv_Listener* listener, ListenRecord record) {
    record.serial = session.listenCounter++;
    *listener = session.listens.add(std::move(record));
    return *listener == nullptr ? session_code::kNoMemory : session_code::kOk;
}

void removeRecord(rv_Session_& session, rv_Listener listener) {
    if (const ListenRecord* record = session.listens.find(listener)) {
        rv_Listener companion = record->companion;
        session.listens.remove(listener);
        session.listens.remove(companion);
    }
}

int announce(rv_Session_& session, const ListenRecord& record) {
    if (session.queue == nullptr || isInbox(record.subject)) return session_code::kOk;
    wire::Built built = listenMessage(session, record);
    if (built.code != 0) return codeOfBuild(built.code);
    if (session.hooks.run(RV_HOOK_LISTEN, &session, built.message.bytes.get()) != 0)
        return session_code::kOk;
    return queueMessage(session, std::move(built.message));
}

int listen(rv_Session_& session, rv_Listener* listener, Subject subject, rv_DataCallback callback,
           void* closure) {
    const bool reserved = subject.view().first() == kReservedElement;
    rv_Listener companion = nullptr;
    if (!reserved) {
        const int code = addPrivateInbox(session, &companion);
        if (code != 0) return code;
    }
    ListenRecord record{std::move(subject), callback, closure, reserved, true, 0, companion};
    if (const int code = addRecord(session, listener, std::move(record)); code != 0) {
        session.listens.remove(companion);
        return code;
    }
    return announce(session, *session.listens.find(*listener));
}

int withdraw(rv_Session_& session, SubjectView subject) {
    if (session.queue == nullptr || isInbox(subject)) return session_code::kOk;
    wire::Built built = wire::buildCancel(bytesOf(subject), session.flavour.id);
    if (built.code != 0) return codeOfBuild(built.code);
    return queueMessage(session, std::move(built.message));
}

int cancel(rv_Session_& session, rv_Listener listener) {
    const ListenRecord* record = session.listens.find(listener);
    if (record == nullptr || listener == session.control) return session_code::kInvalidListener;
    const Subject subject = record->subject;
    removeRecord(session, listener);
    return withdraw(session, subject);
}

}  // namespace

wire::Built listenMessage(rv_Session_& session, const ListenRecord& record) {
    const std::string inbox = session.listens.companionText(record);
    return wire::buildListen(bytesOf(record.subject), inbox.empty() ? nullptr : inbox.c_str(),
                             session.flavour.id);
}

int addInbox(rv_Session_& session, rv_Listener* listener, rv_DataCallback callback, void* closure,
             bool textSubjects) {
    if (session.name.empty()) return session_code::kInvalidSubject;
    const std::string text = "_INBOX." + session.name + "." + std::to_string(session.listenCounter);
    auto subject = Subject::fromText(text.c_str(), wire::kInboxCapacity);
    if (!subject) return session_code::kInvalidSubject;
    return addRecord(session, listener,
                     {std::move(*subject), callback, closure, true, textSubjects, 0, nullptr});
}

int addPrivateInbox(rv_Session_& session, rv_Listener* listener) {
    return addInbox(session, listener, ignoreDelivery, nullptr, false);
}

}  // namespace kvx::session

namespace session = kvx::session;
namespace session_code = kvx::session_code;
namespace wire = kvx::wire;
using kvx::Subject;

int rv_Listen(rv_Session session, rv_Listener* listener, const char* subject,
              rv_DataCallback callback, void* closure) {
    if (listener != nullptr) *listener = nullptr;
    if (!rv_IsOpen(session)) return session_code::kInvalidSession;
    if (listener == nullptr || subject == nullptr || callback == nullptr)
        return session_code::kInvalidArgument;
    try {
        auto encoded = Subject::fromText(subject, wire::kSubjectCapacity);
        if (!encoded || session::isInbox(*encoded)) return session_code::kInvalidSubject;
        const session::Entered entered(*session);
        return session::listen(*session, listener, std::move(*encoded), callback, closure);
    } catch (const std::bad_alloc&) {
        return session_code::kNoMemory;
    }
}

int rv_CreateInbox(rv_Session session, rv_Listener* listener, char* nameOut, unsigned capacity,
                   rv_DataCallback callback, void* closure) {
    if (listener != nullptr) *listener = nullptr;
    if (!rv_IsOpen(session)) return session_code::kInvalidSession;
    if (listener == nullptr || callback == nullptr) return session_code::kInvalidArgument;
    try {
        if (const int code = session::addInbox(*session, listener, callback, closure, true);
            code != 0)
            return code;
        if (nameOut == nullptr) return session_code::kOk;
        const std::string name = session->listens.find(*listener)->subject.view().text();
        if (name.size() < capacity) {
            std::memcpy(nameOut, name.c_str(), name.size() + 1);
            return session_code::kOk;
        }
    } catch (const std::bad_alloc&) {
        session->listens.remove(std::exchange(*listener, nullptr));
        return session_code::kNoMemory;
    }
    session->listens.remove(std::exchange(*listener, nullptr));
    return session_code::kInvalidArgument;
}

int rv_Cancel(rv_Session session, rv_Listener listener) {
    if (!rv_IsOpen(session)) return session_code::kInvalidSession;
    const session::Entered entered(*session);
    try {
        return session::cancel(*session, listener);
    } catch (const std::bad_alloc&) {
        return session_code::kNoMemory;
    }
}
