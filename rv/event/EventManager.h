#pragma once

#include <atomic>
#include <optional>

#include "platform/Poll.h"
#include "rv/event/IoTable.h"
#include "rv/event/SignalTable.h"
#include "rv/event/TimerQueue.h"
#include "rv/event/rvevm.h"

namespace kvx::event {

/// The event manager behind an `rvevm_Manager`: timers, watched sockets, signals, and the loop over
/// them. Loop thread only, except `stop`.
class EventManager {
  public:
    /// `owner` is the first argument of callbacks. Throws `std::bad_alloc` without memory.
    explicit EventManager(void* owner);
    ~EventManager() = default;
    EventManager(const EventManager&) = delete;
    EventManager& operator=(const EventManager&) = delete;

    /// False without a descriptor for the wake-up.
    [[nodiscard]] bool valid() const noexcept { return wakeUp_.valid(); }
    /// True once `shutDown` was called: registrations are refused.
    [[nodiscard]] bool dying() const noexcept { return dying_; }
    [[nodiscard]] bool looping() const noexcept { return looping_; }
    /// True in a loop that `stop` has asked to end.
    [[nodiscard]] bool stopping() const noexcept { return looping_ && !running_; }

    /// Dispatches until `stop`; `kNotInitialized` when already looping. The manager may have been
    /// destroyed when this returns.
    int runLoop();
    /// Any thread; safe in a signal handler.
    void stop() noexcept;
    /// Ends the loop and drops timers and signals. The manager may be freed once the loop has
    /// returned.
    void shutDown() noexcept;

    /// Must not be called once dying.
    [[nodiscard]] TimerQueue& timers() noexcept { return *timers_; }
    [[nodiscard]] IoTable& io() noexcept { return io_; }
    [[nodiscard]] SignalTable& signals() noexcept { return signals_; }

  private:
    void step();
    /// Runs the due timers. Returns the limit of the next wait; `kForever` without a timer.
    [[nodiscard]] platform::Milliseconds runTimers();
    void waitForIo(platform::Milliseconds timeout);
    void dispatchReady();

    void* const owner_;
    platform::WakeUp wakeUp_;
    TimerQueue::Owner timers_;
    IoTable io_;
    SignalTable signals_;
    std::atomic<bool> running_ = false;
    std::atomic<bool> waiting_ = false;  // for I/O, or about to
    bool looping_ = false;
    bool dying_ = false;
};

}  // namespace kvx::event
