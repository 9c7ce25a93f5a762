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
/// them. Loop thread only, `stop` excepted.
class EventManager {
  public:
    /// Callbacks get `owner` as their first argument. Throws `std::bad_alloc` without memory.
    explicit EventManager(void* owner);
    ~EventManager() = default;
    EventManager(const EventManager&) = delete;
    EventManager& operator=(const EventManager&) = delete;

    /// False when the system has no descriptor left for the wake-up.
    [[nodiscard]] bool valid() const noexcept { return wakeUp_.valid(); }
    /// True once `shutDown` was called: nothing may be registered any more.
    [[nodiscard]] bool dying() const noexcept { return dying_; }
    [[nodiscard]] bool looping() const noexcept { return looping_; }

    /// Dispatches until `stop`; `kNotInitialized` when looping already. The manager may be gone
    /// when this returns.
    int runLoop();
    /// Any thread; safe in a signal handler.
    void stop() noexcept;
    /// Ends the loop and gives timers and signals up. What is left may be freed once the loop has
    /// returned.
    void shutDown() noexcept;

    /// Not to be called once dying.
    [[nodiscard]] TimerQueue& timers() noexcept { return *timers_; }
    [[nodiscard]] IoTable& io() noexcept { return io_; }
    [[nodiscard]] SignalTable& signals() noexcept { return signals_; }

  private:
    void step();
    /// How long the coming wait may last; `kForever` without a timer.
    [[nodiscard]] platform::Milliseconds runTimers();
    void waitForIo(platform::Milliseconds timeout);
    void dispatchReady();

    void* const owner_;
    platform::WakeUp wakeUp_;
    TimerQueue::Owner timers_;
    IoTable io_;
    SignalTable signals_;
    std::atomic<bool> running_ = false;
    bool looping_ = false;
    bool dying_ = false;
};

}  // namespace kvx::event
