// The loop.
//
// A step runs the due timers, waits for sockets until the next expiry, and then calls the callbacks
// of pending signals and ready sockets. `running_` keeps the loop going; any thread may clear it,
// and the wake-up ends a wait. `looping_` is true while a loop is on the stack, also after a stop,
// and refuses a second one.
//
// A manager destroyed inside its loop drops its timers and signals at once (a timer queue inside
// its own run is freed when that run ends) and is freed when the loop returns.

#include "rv/event/EventManager.h"

#include <new>

#include "rv/error/rvCodes.h"
#include "rv/event/EventManagerExtras.h"

namespace kvx::event {

namespace {
constexpr std::size_t kInitialTimers = 16;            // capacity of the manager's own timer queue
constexpr platform::Milliseconds kIdleSleep = 1'000;  // a step with nothing to wait for
}  // namespace

EventManager::EventManager(void* owner)
    : owner_(owner),
      timers_(TimerQueue::create(kInitialTimers, owner)),
      io_(wakeUp_),
      signals_(wakeUp_) {
    if (timers_ == nullptr) throw std::bad_alloc();
}

int EventManager::runLoop() {
    if (looping_ || dying_) return event_code::kNotInitialized;
    looping_ = true;
    running_ = true;
    while (running_) step();
    looping_ = false;
    return event_code::kOk;
}

void EventManager::stop() noexcept {
    running_ = false;
    if (waiting_) wakeUp_.notify();
}

void EventManager::shutDown() noexcept {
    dying_ = true;
    running_ = false;
    signals_.release();
    timers_.reset();
}

void EventManager::step() {
    const platform::Milliseconds timeout = runTimers();
    if (!running_) return;
    waitForIo(timeout);
    signals_.dispatch(owner_, running_);
    dispatchReady();
}

platform::Milliseconds EventManager::runTimers() {
    platform::Milliseconds wait = platform::kForever;
    const int result = timers_->runDueTimers();
    if (result == kTimerOk) timers_->nextWait(wait);
    return wait;
}

void EventManager::waitForIo(platform::Milliseconds timeout) {
    if (signals_.pending()) return;
    if (io_.empty() && timeout == platform::kForever) timeout = kIdleSleep;
    waiting_ = true;
    io_.wait(running_ ? timeout : 0);  // a stop from here on ends the wait
    waiting_ = false;
}

void EventManager::dispatchReady() {
    IoTable::Ready ready{};
    while (running_ && io_.nextReady(ready)) {
        ready.callback(owner_, ready.closure, kIoEvent, ready.id);
    }
    io_.clearReady();
}

}  // namespace kvx::event
