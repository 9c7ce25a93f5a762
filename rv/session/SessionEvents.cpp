// A session's events, on top of its event manager.
//
// Timers are in the session's own queue, whose next expiry is mirrored in one timer of the manager.
// I/O events and signals are registered with the manager; a record here lets ids be checked, gives
// the callback its session, and lets `stop` remove them all.
//
// Every callback runs inside an `Entered`: a session closed by it is freed when the last such scope
// ends, and nothing here is used after that.

#include "rv/session/SessionEvents.h"

#include <cstdio>
#include <utility>

#include "rv/error/rvAdvisory.h"
#include "rv/error/rvCodes.h"
#include "rv/error/rvErrors.h"
#include "rv/session/SessionParts.h"
#include "rv/session/rvSessionEvents.h"

namespace kvx::session {

namespace {
constexpr std::size_t kTimerCapacity = 16;
}

int SessionEvents::start(rvevm_Manager manager) {
    timers_ = event::TimerQueue::create(kTimerCapacity, session_->handle());
    if (!timers_) return event_code::kResourcesExceeded;
    manager_ = manager;
    timers_->setNextExpiryHook(onNextExpiry, this);
    timers_->setLatenessOutput(&lateness_);
    return event_code::kOk;
}

void SessionEvents::stop() {
    if (manager_ == nullptr) return;
    if (timers_) {
        timers_->setNextExpiryHook(nullptr, nullptr);
        timers_->setLatenessOutput(nullptr);
        timers_.reset();
    }
    disarm();
    ios_.forEach([&](rvevm_Id, const Registration& io) { rvevm_RemoveIO(manager_, io.eventId); });
    signals_.forEach(
        [&](rvevm_Id, const Registration& entry) { rvevm_RemoveSignal(manager_, entry.eventId); });
    manager_ = nullptr;
}

int SessionEvents::refuse(const rvevm_Id* id, rvevm_Callback callback) const {
    if (manager_ == nullptr) return event_code::kSynchronous;
    if (id == nullptr) return event_code::kInvalidId;
    return callback == nullptr ? event_code::kInvalidCallback : event_code::kOk;
}

int SessionEvents::addTimer(rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback,
                            void* closure) {
    if (const int code = refuse(id, callback); code != 0) return code;
    return event::eventCodeOf(timers_->add(id, intervalMs, callback, closure));
}

int SessionEvents::addRepeatTimer(rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback,
                                  void* closure) {
    if (const int code = refuse(id, callback); code != 0) return code;
    if (intervalMs == 0) return event_code::kInvalidInterval;
    return event::eventCodeOf(timers_->addRepeating(id, intervalMs, callback, closure));
}

int SessionEvents::removeTimer(rvevm_Id id) {
    if (manager_ == nullptr) return event_code::kSynchronous;
    return event::eventCodeOf(timers_->remove(id));
}

int SessionEvents::resetTimer(rvevm_Id id, unsigned long intervalMs) {
    if (manager_ == nullptr) return event_code::kSynchronous;
    if (intervalMs == 0 && timers_->isRepeating(id)) return event_code::kInvalidInterval;
    return event::eventCodeOf(timers_->reset(id, intervalMs));
}

SessionEvents::Registration* SessionEvents::keep(Registrations& table, rvevm_Callback callback,
                                                 void* closure) {
    rvevm_Id id = table.add({session_, callback, closure, nullptr, nullptr});
    Registration* registration = id != nullptr ? table.find(id) : nullptr;
    if (registration != nullptr) registration->id = id;
    return registration;
}

int SessionEvents::addIo(rvevm_Id* id, unsigned int socket, rvevm_IoEventType type,
                         rvevm_Callback callback, void* closure) {
    if (const int code = refuse(id, callback); code != 0) return code;
    Registration* io = keep(ios_, callback, closure);
    if (io == nullptr) return event_code::kResourcesExceeded;
    const int code = rvevm_AddIO(manager_, &io->eventId, socket, type, onRegistration, io);
    if (code == 0)
        *id = io->id;
    else
        ios_.remove(io->id);
    return code;
}

int SessionEvents::addSignal(rvevm_Id* id, int signal, rvevm_Callback callback, void* closure) {
    if (const int code = refuse(id, callback); code != 0) return code;
    Registration* entry = keep(signals_, callback, closure);
    if (entry == nullptr) return event_code::kResourcesExceeded;
    const int code = rvevm_AddSignal(manager_, &entry->eventId, signal, onRegistration, entry);
    if (code == 0)
        *id = entry->id;
    else
        signals_.remove(entry->id);
    return code;
}

int SessionEvents::remove(Registrations& table, rvevm_Id id,
                          int (*removeEvent)(rvevm_Manager, rvevm_Id)) {
    if (manager_ == nullptr) return event_code::kSynchronous;
    const Registration* registration = table.find(id);
    if (registration == nullptr) return event_code::kInvalidId;
    const int code = removeEvent(manager_, registration->eventId);
    table.remove(id);
    return code;
}

int SessionEvents::removeIo(rvevm_Id id) {
    return remove(ios_, id, rvevm_RemoveIO);
}
int SessionEvents::removeSignal(rvevm_Id id) {
    return remove(signals_, id, rvevm_RemoveSignal);
}

void SessionEvents::onRegistration(void* /*owner*/, void* closure, int kind, void* /*entry*/) {
    const Registration fired = *static_cast<const Registration*>(closure);
    const Entered entered(*fired.session);
    fired.callback(fired.session->handle(), fired.closure, kind, fired.id);
}

void SessionEvents::disarm() {
    if (managerTimer_ != nullptr)
        rvevm_RemoveTimer(manager_, std::exchange(managerTimer_, nullptr));
}

void SessionEvents::mirror(std::optional<platform::Milliseconds> wait) {
    if (!wait) return disarm();
    const auto interval = static_cast<unsigned long>(*wait);
    const int code = managerTimer_ != nullptr
                         ? rvevm_ResetTimer(manager_, managerTimer_, interval)
                         : rvevm_AddTimer(manager_, &managerTimer_, interval, onManagerTimer, this);
    if (code != 0)
        std::fprintf(stderr, "Critical error: low level timer failure (%s)\n",
                     rvevm_ErrorText(code));
}

void SessionEvents::onNextExpiry(void* closure, std::optional<platform::Milliseconds> wait) {
    static_cast<SessionEvents*>(closure)->mirror(wait);
}

void SessionEvents::onManagerTimer(void* /*owner*/, void* closure, int /*kind*/, void* /*entry*/) {
    auto* events = static_cast<SessionEvents*>(closure);
    const Entered entered(*events->session_);
    events->managerTimer_ = nullptr;
    events->runTimers();
}

void SessionEvents::runTimers() {
    lateness_ = 0;
    if (timers_->runDueTimers() == event::kInvalidQueue || session_->isClosed()) return;
    if (lateness_ > advisory::kStarvationThreshold)
        announceStarvation(*session_, static_cast<std::uint32_t>(lateness_));
}

}  // namespace kvx::session

namespace {

// An operation on the events of an open session.
template <class Operation>
int onEvents(rv_Session handle, Operation operation) {
    kvx::session::SessionState* const session = kvx::session::find(handle);
    return session != nullptr ? operation(session->events) : kvx::event_code::kInvalidId;
}

using Events = kvx::session::SessionEvents;

}  // namespace

int rv_AddTimer(rv_Session session, rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback,
                void* closure) {
    return onEvents(session, [&](Events& events) {
        return events.addTimer(id, intervalMs, callback, closure);
    });
}

int rv_AddRepeatTimer(rv_Session session, rvevm_Id* id, unsigned long intervalMs,
                      rvevm_Callback callback, void* closure) {
    return onEvents(session, [&](Events& events) {
        return events.addRepeatTimer(id, intervalMs, callback, closure);
    });
}

int rv_RemoveTimer(rv_Session session, rvevm_Id id) {
    return onEvents(session, [&](Events& events) { return events.removeTimer(id); });
}

int rv_ResetTimer(rv_Session session, rvevm_Id id, unsigned long intervalMs) {
    return onEvents(session, [&](Events& events) { return events.resetTimer(id, intervalMs); });
}

int rv_AddIO(rv_Session session, rvevm_Id* id, unsigned int socket, rvevm_IoEventType type,
             rvevm_Callback callback, void* closure) {
    return onEvents(
        session, [&](Events& events) { return events.addIo(id, socket, type, callback, closure); });
}

int rv_RemoveIO(rv_Session session, rvevm_Id id) {
    return onEvents(session, [&](Events& events) { return events.removeIo(id); });
}

int rv_AddSignal(rv_Session session, rvevm_Id* id, int signal, rvevm_Callback callback,
                 void* closure) {
    return onEvents(
        session, [&](Events& events) { return events.addSignal(id, signal, callback, closure); });
}

int rv_RemoveSignal(rv_Session session, rvevm_Id id) {
    return onEvents(session, [&](Events& events) { return events.removeSignal(id); });
}
