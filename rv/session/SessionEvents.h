#pragma once

#include "platform/Clock.h"
#include "rv/event/IdTable.h"
#include "rv/event/TimerQueue.h"
#include "rv/event/rvevm.h"
#include "rv/session/rv_Session.h"

namespace kvx::session {

struct SessionState;

/// The timers, I/O events and signals of one session, all released by `stop`.
///
/// The session has its own timer queue, whose first expiry is mirrored in exactly one timer of the
/// event manager. The delay of that timer is the session's lateness.
class SessionEvents {
  public:
    explicit SessionEvents(SessionState* session) : session_(session) {}
    SessionEvents(const SessionEvents&) = delete;
    SessionEvents& operator=(const SessionEvents&) = delete;
    ~SessionEvents() { stop(); }

    /// Returns an event-manager code. Without a start (a synchronous session) every operation gives
    /// 11.
    int start(rvevm_Manager manager);
    /// Removes every registration; no further callback is called. May be called inside a callback.
    void stop();

    int addTimer(rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback, void* closure);
    int addRepeatTimer(rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback,
                       void* closure);
    int removeTimer(rvevm_Id id);
    int resetTimer(rvevm_Id id, unsigned long intervalMs);
    int addIo(rvevm_Id* id, unsigned int socket, rvevm_IoEventType type, rvevm_Callback callback,
              void* closure);
    int removeIo(rvevm_Id id);
    int addSignal(rvevm_Id* id, int signal, rvevm_Callback callback, void* closure);
    int removeSignal(rvevm_Id id);

  private:
    struct Registration {
        SessionState* session;
        rvevm_Callback callback;
        void* closure;
        rvevm_Id eventId;  // the event manager's
        rvevm_Id id;       // ours
    };
    using Registrations = event::IdTable<Registration>;

    [[nodiscard]] int refuse(const rvevm_Id* id, rvevm_Callback callback) const;
    /// Stores a registration and returns its stable address; null without memory.
    Registration* keep(Registrations& table, rvevm_Callback callback, void* closure);
    int remove(Registrations& table, rvevm_Id id, int (*removeEvent)(rvevm_Manager, rvevm_Id));
    void mirror(std::optional<platform::Milliseconds> wait);
    void disarm();
    void runTimers();

    static void onNextExpiry(void* closure, std::optional<platform::Milliseconds> wait);
    static void onManagerTimer(void* owner, void* closure, int kind, void* entry);
    static void onRegistration(void* owner, void* closure, int kind, void* entry);

    SessionState* const session_;
    rvevm_Manager manager_ = nullptr;
    event::TimerQueue::Owner timers_;
    rvevm_Id managerTimer_ = nullptr;
    platform::Milliseconds lateness_ = 0;
    Registrations ios_;
    Registrations signals_;
};

}  // namespace kvx::session
