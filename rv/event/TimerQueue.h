#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Clock.h"
#include "rv/event/IdTable.h"
#include "rv/event/TimeValue.h"
#include "rv/event/rvevm.h"

namespace kvx::event {

/// Results of the timer-queue operations.
enum TimerResult : int {
    kTimerOk = 0,
    kInvalidQueue = -255,
    kInvalidTimer = -254,
    kNullCallback = -252,
    kNoMemory = -250,
    kQueueEmpty = -249,
};

/// The event-manager code of a timer-queue result.
[[nodiscard]] int eventCodeOf(int timerResult) noexcept;

/// Timers sorted by expiry, equal expiries in the order of adding. The event manager has one, and
/// so has every session. Loop thread only.
///
/// Callbacks may add, remove and reset any timer, and destroy the queue.
class TimerQueue {
  public:
    /// Called with the wait until the next expiry, nothing for an empty queue, whenever the first
    /// timer changes and after every run. It may call the queue, but not destroy it.
    using NextExpiryHook = void (*)(void* closure, std::optional<platform::Milliseconds> wait);

    /// Destroys the queue at once or, inside its own run, at the end of that run; no further
    /// callback is called.
    struct Destroy {
        void operator()(TimerQueue* queue) const noexcept { queue->destroy(); }
    };
    using Owner = std::unique_ptr<TimerQueue, Destroy>;

    /// `owner` is the first argument of callbacks. Null without memory.
    [[nodiscard]] static Owner create(std::size_t capacity, void* owner) noexcept;

    TimerQueue(const TimerQueue&) = delete;
    TimerQueue& operator=(const TimerQueue&) = delete;

    /// `kInvalidTimer` for a null id pointer, `kNullCallback`, `kNoMemory`; `kInvalidQueue` when
    /// the queue is being destroyed.
    int add(rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback, void* closure);
    /// As `add`, repeating every `intervalMs` which must not be 0.
    int addRepeating(rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback,
                     void* closure);
    /// `kInvalidTimer` for an id that is not a live timer of this queue.
    int remove(rvevm_Id id);
    int reset(rvevm_Id id, unsigned long intervalMs);
    /// True when the id is a live repeating timer of this queue.
    [[nodiscard]] bool isRepeating(rvevm_Id id) const noexcept;

    /// Calls every timer that is due now, once. Returns `kQueueEmpty` when no timer is pending
    /// afterwards, `kInvalidQueue` when the queue was destroyed meanwhile and must not be used.
    /// Does nothing inside a run.
    int runDueTimers();

    /// The wait until the next expiry, 0 when it has passed; `kQueueEmpty` when no timer is
    /// pending.
    int nextWait(platform::Milliseconds& wait) const noexcept;

    void setNextExpiryHook(NextExpiryHook hook, void* closure) noexcept;
    /// Each run with a due timer stores the lateness of the first one in `*lateness`. Null disables
    /// this; `lateness` must outlive this queue or the next call.
    void setLatenessOutput(platform::Milliseconds* lateness) noexcept { lateness_ = lateness; }

    [[nodiscard]] std::size_t size() const noexcept { return timers_.size(); }

  private:
    static constexpr std::size_t kNotDue = static_cast<std::size_t>(-1);

    struct Timer {
        TimeValue expiry;
        rvevm_Callback callback = nullptr;
        void* closure = nullptr;
        unsigned long repeatMs = 0;     // 0 for a one-shot timer
        rvevm_Id id = nullptr;          // its own
        std::size_t dueSlot = kNotDue;  // index in the due list of the current run
    };
    // The expiry is beside the pointer so that a search stays inside the array.
    struct Entry {
        TimeValue expiry;
        Timer* timer;
    };

    TimerQueue(std::size_t capacity, void* owner);
    ~TimerQueue() = default;

    void destroy() noexcept;
    int addTimer(rvevm_Id* id, unsigned long intervalMs, unsigned long repeatMs,
                 rvevm_Callback callback, void* closure);
    [[nodiscard]] bool makeRoom() noexcept;

    // The index at which a timer of this expiry belongs: after all that expire earlier or equally.
    [[nodiscard]] std::size_t positionFor(TimeValue expiry) const noexcept;
    // Puts the timer into the array; true when it became the first one.
    bool insert(Timer& timer) noexcept;
    // Takes the timer out of the array or out of the due list; true when it was the first one.
    bool takeOut(Timer& timer) noexcept;
    void tellNextExpiry();

    void collectDue(TimeValue now) noexcept;
    void callDue(std::size_t slot, TimeValue now);

    // Constant after construction.
    void* const owner_;

    // Loop thread only.
    IdTable<Timer> timers_;
    std::vector<Entry> sorted_;  // ascending expiry; has room for every timer of `timers_`
    std::vector<Timer*> due_;    // of the current run; null where removed, reset or called
    NextExpiryHook hook_ = nullptr;
    void* hookClosure_ = nullptr;
    platform::Milliseconds* lateness_ = nullptr;
    bool running_ = false;
    bool destroying_ = false;
};

}  // namespace kvx::event
