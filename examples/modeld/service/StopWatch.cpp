// The signal handler only sets a flag, which a thread of this object polls every 100 ms. The first
// stop is passed on to the port library's catcher and starts a deadline of 1.5 s for the main loop;
// `leaving` extends it to ten seconds while the daemon is connected. A second signal or a missed
// deadline ends the process at once. The handlers are installed again in `leaving`, since the
// catcher's stop has restored the default handling.

#include "examples/modeld/service/StopWatch.h"

#include <atomic>

#include "examples/modeld/service/DaemonLink.h"
#include "examples/modeld/service/Log.h"
#include "mom/mom.h"
#include "platform/Signals.h"

namespace modeld {

namespace {

constexpr std::chrono::milliseconds kLook{100};
constexpr std::chrono::milliseconds kForTheLoop{1500};
constexpr std::chrono::seconds kForTheRest{10};
constexpr int kTerminate = 15;  // the port library's number

std::atomic<bool> isStopAsked{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void noteStop(int) {
    isStopAsked = true;
}

void installHandlers() {
    using namespace kvx::platform::signal_number;
    for (const int signal : {interrupt(), terminate(), user1()}) {
        if (!kvx::platform::installSignalHandler(signal, noteStop)) {
            Log::warning("signal {} cannot be handled", signal);
        }
    }
}

[[noreturn]] void endHard() {
    if (DaemonLink::isUp()) {
        Log::error("ended by a signal before everything was done");
        CVekProcess::Instance().Exit(1);
    }
    Log::info("ended by a signal; the daemon is away, {} messages could not be sent",
              DaemonLink::unsent());
    CVekProcess::Instance().Exit(0);
}

}  // namespace

StopWatch::StopWatch() : thread_([this] { run(); }) {
    installHandlers();
}

StopWatch::~StopWatch() {
    {
        const std::lock_guard guard(mutex_);
        isOver_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void StopWatch::leaving() {
    installHandlers();
    const std::lock_guard guard(mutex_);
    if (deadline_ && DaemonLink::isUp()) deadline_ = Clock::now() + kForTheRest;
}

void StopWatch::run() {
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, kLook, [this] { return isOver_; })) {
        const bool asked = isStopAsked.exchange(false);
        if (deadline_ && (asked || Clock::now() > *deadline_)) endHard();
        if (!asked) continue;
        deadline_ = Clock::now() + kForTheLoop;
        CSignalHandler::Instance().handleSignal(kTerminate);
    }
}

}  // namespace modeld
