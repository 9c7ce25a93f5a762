// Listening: records, companion inboxes and their announcements.
//
// A record below "_INBOX" is local and never announced, since the daemon routes inbox messages by
// the wildcard announced at the handshake. One below "_RV" is announced without a reply inbox. Any
// other record is announced with its own companion inbox.

#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/message/rvSubject.h"
#include "rv/session/SessionParts.h"

namespace kvx::session {

namespace {

void ignoreDelivery(rv_Session, const char*, const char*, rvmsg_Type, rvmsg_Size, rvmsg_Data,
                    void*) {}

int addRecord(SessionState& session, rv_Listener* listener, ListenRecord record) {
    record.serial = session.listenCounter++;
    *listener = session.listens.add(std::move(record));
    return *listener == nullptr ? session_code::kNoMemory : session_code::kOk;
}

int announce(SessionState& session, rv_Listener id) {
    const ListenRecord* const record = session.listens.find(id);
    if (session.queue() == nullptr || isInbox(record->subject)) return session_code::kOk;
    wire::Built built = listenMessage(session, *record);
    if (built.code != 0) return codeOfBuild(built.code);
    if (session.hooks.run(RV_HOOK_LISTEN, session.handle(), built.message.bytes.get()) != 0)
        return session_code::kOk;
    if (!session.listens.setAnnounced(id, true)) return session_code::kOk;  // the hook cancelled it
    const int code = queueMessage(session, std::move(built.message));
    if (code == session_code::kNoMemory) session.listens.setAnnounced(id, false);
    return code;
}

int announceSafely(SessionState& session, rv_Listener id) {
    try {
        return announce(session, id);
    } catch (const std::bad_alloc&) {
        return session_code::kNoMemory;
    }
}

// The announcement may call user code: hooks, and listeners of advisories about a broken link or a
// full queue. The new record becomes callable only afterwards, since the caller does not know its
// id before the listen returns; it may have been cancelled meanwhile.
int listen(SessionState& session, rv_Listener* listener, Subject subject, rv_DataCallback callback,
           void* closure) {
    const bool reserved = subject.view().first() == kReservedElement;
    rv_Listener companion = nullptr;
    if (!reserved) {
        const int code = addPrivateInbox(session, &companion);
        if (code != 0) return code;
    }
    ListenRecord record{std::move(subject), callback, closure, true, 0, companion};
    record.callable = false;
    rv_Listener made = nullptr;
    if (const int code = addRecord(session, &made, std::move(record)); code != 0) {
        session.listens.remove(companion);
        return code;
    }
    *listener = made;
    const int code = announceSafely(session, made);
    if (ListenRecord* const kept = session.listens.find(made)) kept->callable = true;
    return code;
}

// The daemon counts: a cancel for a record that it was not told of would undo the listen of another
// record on the same subject.
int withdraw(SessionState& session, const ListenRecord& record) {
    if (session.queue() == nullptr || isInbox(record.subject)) return session_code::kOk;
    if (!record.announced && session.listens.isAnnounced(record.subject)) return session_code::kOk;
    wire::Built built = wire::buildCancel(bytesOf(record.subject), session.flavour.id);
    if (built.code != 0) return codeOfBuild(built.code);
    return queueMessage(session, std::move(built.message));
}

int cancel(SessionState& session, rv_Listener listener) {
    if (listener == session.control) return session_code::kInvalidListener;
    const std::optional<ListenRecord> cancelled = session.listens.take(listener);
    if (!cancelled) return session_code::kInvalidListener;
    session.listens.remove(cancelled->companion);
    return withdraw(session, *cancelled);
}

}  // namespace

wire::Built listenMessage(SessionState& session, const ListenRecord& record) {
    const std::string inbox = session.listens.companionText(record);
    return wire::buildListen(bytesOf(record.subject), inbox.empty() ? nullptr : inbox.c_str(),
                             session.flavour.id);
}

int addInbox(SessionState& session, rv_Listener* listener, rv_DataCallback callback, void* closure,
             bool textSubjects) {
    if (session.name.empty()) return session_code::kInvalidSubject;
    const std::string text = inboxPrefix(session.name) + std::to_string(session.listenCounter);
    auto subject = Subject::fromText(text.c_str(), wire::kInboxCapacity);
    if (!subject) return session_code::kInvalidSubject;
    return addRecord(session, listener,
                     {std::move(*subject), callback, closure, textSubjects, 0, nullptr});
}

int addPrivateInbox(SessionState& session, rv_Listener* listener) {
    return addInbox(session, listener, ignoreDelivery, nullptr, false);
}

}  // namespace kvx::session

namespace session = kvx::session;
namespace session_code = kvx::session_code;
namespace wire = kvx::wire;
using kvx::Subject;

int rv_Listen(rv_Session handle, rv_Listener* listener, const char* subject,
              rv_DataCallback callback, void* closure) {
    if (listener != nullptr) *listener = nullptr;
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
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

int rv_CreateInbox(rv_Session handle, rv_Listener* listener, char* nameOut, unsigned capacity,
                   rv_DataCallback callback, void* closure) {
    if (listener != nullptr) *listener = nullptr;
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
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

int rv_Cancel(rv_Session handle, rv_Listener listener) {
    session::SessionState* const session = session::find(handle);
    if (session == nullptr) return session_code::kInvalidSession;
    const session::Entered entered(*session);
    return session::cancel(*session, listener);
}
