// The timer queue.
//
// Every live timer is either in the array, sorted by expiry, or in the due list of the current run.
// A run reads the clock once, moves expired timers from the front of the array to the due list, and
// works through that list by index. Before its callback is called a timer leaves the due list: a
// repeating timer is back in the array with its next expiry, a one-shot timer is destroyed and its
// id dead. So a callback may change any timer; one that it removes or resets leaves a null entry in
// the due list and is not called.
//
// The array always has room for every live timer, so that re-inserting one cannot fail; the due
// list has the same capacity, so that a run allocates nothing.
//
// A queue destroyed inside its own run is only marked; the run frees it at its end.

#include "rv/event/TimerQueue.h"

#include <algorithm>
#include <new>

#include "rv/error/rvCodes.h"
#include "rv/event/EventManagerExtras.h"

namespace kvx::event {

namespace {

// With fewer candidates than this a linear scan is the faster search.
constexpr std::size_t kLinearBelow = 6;

}  // namespace

int eventCodeOf(int timerResult) noexcept {
    switch (timerResult) {
        case kTimerOk:
            return event_code::kOk;
        case kInvalidQueue:
        case kInvalidTimer:
            return event_code::kInvalidId;
        case kNullCallback:
            return event_code::kInvalidCallback;
        case kNoMemory:
            return event_code::kResourcesExceeded;
        default:
            return event_code::kInitFailed;
    }
}

TimerQueue::TimerQueue(std::size_t capacity, void* owner) : owner_(owner) {
    sorted_.reserve(capacity);
    due_.reserve(capacity);
}

TimerQueue::Owner TimerQueue::create(std::size_t capacity, void* owner) noexcept {
    try {
        return Owner(new TimerQueue(capacity, owner));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void TimerQueue::destroy() noexcept {
    destroying_ = true;
    if (!running_) delete this;
}

int TimerQueue::add(rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback,
                    void* closure) {
    return addTimer(id, intervalMs, 0, callback, closure);
}

int TimerQueue::addRepeating(rvevm_Id* id, unsigned long intervalMs, rvevm_Callback callback,
                             void* closure) {
    return addTimer(id, intervalMs, intervalMs, callback, closure);
}

int TimerQueue::addTimer(rvevm_Id* id, unsigned long intervalMs, unsigned long repeatMs,
                         rvevm_Callback callback, void* closure) {
    if (destroying_) return kInvalidQueue;
    if (id == nullptr) return kInvalidTimer;
    if (callback == nullptr) return kNullCallback;
    if (!makeRoom()) return kNoMemory;
    rvevm_Id added =
        timers_.add({after(timeNow(), intervalMs), callback, closure, repeatMs, nullptr, kNotDue});
    Timer* const timer = added != nullptr ? timers_.find(added) : nullptr;
    if (timer == nullptr) return kNoMemory;
    timer->id = added;
    *id = added;
    if (insert(*timer)) tellNextExpiry();
    return kTimerOk;
}

bool TimerQueue::makeRoom() noexcept {
    if (timers_.size() < sorted_.capacity() && timers_.size() < due_.capacity()) return true;
    const std::size_t room = std::max(sorted_.capacity() * 3 / 2, timers_.size() + 1);
    try {
        sorted_.reserve(room);
        due_.reserve(room);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

std::size_t TimerQueue::positionFor(TimeValue expiry) const noexcept {
    std::size_t first = 0;
    std::size_t last = sorted_.size();
    while (last - first >= kLinearBelow) {
        const std::size_t middle = first + (last - first) / 2;
        if (sorted_[middle].expiry <= expiry) {
            first = middle + 1;
        } else {
            last = middle;
        }
    }
    while (first < last && sorted_[first].expiry <= expiry) ++first;
    return first;
}

bool TimerQueue::insert(Timer& timer) noexcept {
    const std::size_t position = positionFor(timer.expiry);
    sorted_.insert(sorted_.begin() + static_cast<std::ptrdiff_t>(position), {timer.expiry, &timer});
    return position == 0;
}

bool TimerQueue::takeOut(Timer& timer) noexcept {
    if (timer.dueSlot != kNotDue) {
        due_[timer.dueSlot] = nullptr;
        timer.dueSlot = kNotDue;
        return false;
    }
    auto at = std::lower_bound(sorted_.begin(), sorted_.end(), timer.expiry,
                               [](const Entry& e, TimeValue expiry) { return e.expiry < expiry; });
    at = std::find_if(at, sorted_.end(), [&](const Entry& e) { return e.timer == &timer; });
    const bool wasFirst = at == sorted_.begin();
    sorted_.erase(at);
    return wasFirst;
}

int TimerQueue::remove(rvevm_Id id) {
    if (destroying_) return kInvalidQueue;
    Timer* timer = timers_.find(id);
    if (timer == nullptr) return kInvalidTimer;
    const bool wasFirst = takeOut(*timer);
    timers_.remove(id);
    if (wasFirst) tellNextExpiry();
    return kTimerOk;
}

int TimerQueue::reset(rvevm_Id id, unsigned long intervalMs) {
    if (destroying_) return kInvalidQueue;
    Timer* timer = timers_.find(id);
    if (timer == nullptr) return kInvalidTimer;
    const bool wasFirst = takeOut(*timer);
    timer->expiry = after(timeNow(), intervalMs);
    if (timer->repeatMs != 0) timer->repeatMs = intervalMs;
    const bool isFirst = insert(*timer);
    if (wasFirst || isFirst) tellNextExpiry();
    return kTimerOk;
}

bool TimerQueue::isRepeating(rvevm_Id id) const noexcept {
    const Timer* timer = timers_.find(id);
    return timer != nullptr && timer->repeatMs != 0;
}

int TimerQueue::nextWait(platform::Milliseconds& wait) const noexcept {
    if (sorted_.empty()) return kQueueEmpty;
    wait = std::max<platform::Milliseconds>(0, between(timeNow(), sorted_.front().expiry));
    return kTimerOk;
}

void TimerQueue::setNextExpiryHook(NextExpiryHook hook, void* closure) noexcept {
    hook_ = hook;
    hookClosure_ = closure;
}

void TimerQueue::tellNextExpiry() {
    if (hook_ == nullptr) return;
    platform::Milliseconds wait = 0;
    const bool pending = nextWait(wait) == kTimerOk;
    hook_(hookClosure_, pending ? std::optional(wait) : std::nullopt);
}

int TimerQueue::runDueTimers() {
    if (running_) return kTimerOk;
    running_ = true;
    const TimeValue now = timeNow();
    collectDue(now);
    for (std::size_t slot = 0; slot < due_.size() && !destroying_; ++slot) callDue(slot, now);
    due_.clear();
    running_ = false;
    if (destroying_) {
        delete this;
        return kInvalidQueue;
    }
    tellNextExpiry();
    return sorted_.empty() ? kQueueEmpty : kTimerOk;
}

void TimerQueue::collectDue(TimeValue now) noexcept {
    const auto firstLater = std::find_if(sorted_.begin(), sorted_.end(),
                                         [=](const Entry& e) { return e.expiry > now; });
    if (firstLater == sorted_.begin()) return;
    if (lateness_ != nullptr) *lateness_ = between(sorted_.front().expiry, now);
    for (auto at = sorted_.begin(); at != firstLater; ++at) {
        at->timer->dueSlot = due_.size();
        due_.push_back(at->timer);
    }
    sorted_.erase(sorted_.begin(), firstLater);
}

void TimerQueue::callDue(std::size_t slot, TimeValue now) {
    if (due_[slot] == nullptr) return;
    Timer& timer = *due_[slot];
    const Timer called = timer;
    takeOut(timer);
    if (timer.repeatMs == 0) {
        timers_.remove(timer.id);
    } else {
        timer.expiry = after(now, timer.repeatMs);
        insert(timer);
    }
    called.callback(owner_, called.closure, kTimerEvent, called.id);
}

}  // namespace kvx::event
