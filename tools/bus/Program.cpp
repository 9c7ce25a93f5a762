// The signals that end a program are blocked in every thread and taken by one of their own. So a
// signal is answered whatever the main thread waits for, and what answers it may do anything that a
// thread may do: flush, complain. That thread is never joined: it waits until the
// process is gone, and what it uses is never destroyed.

#include "tools/bus/Program.h"

#include <array>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "platform/Clock.h"
#include "platform/File.h"
#include "platform/Process.h"
#include "platform/Signals.h"
#include "tools/bus/Output.h"

namespace kvx::bus {

namespace {

constexpr platform::Milliseconds kPatience = 300;  // from a signal to the end of the program
constexpr platform::Milliseconds kStep = 10;       // between two askings to leave
constexpr platform::Milliseconds kOutputWait = 50;

// What the main thread has set up for a signal.
struct Arrangement {
    std::set<int> ignored;  // constant once the thread runs

    std::mutex lock;
    // Guarded by lock; empty outside their scopes.
    std::function<void()> leave;
    std::function<int()> wrapUp;
};

Arrangement& arrangement() {
    static Arrangement* const only = std::make_unique<Arrangement>().release();
    return *only;
}

std::array<int, 3> endingSignals() {
    namespace number = platform::signal_number;
    return {number::interrupt(), number::terminate(), number::hangup()};
}

[[noreturn]] void endBySignal(int signal) {
    platform::restoreDefaultSignal(signal);
    platform::unblockSignals(std::array{signal});
    platform::raiseSignal(signal);
    platform::exitNow(1);
}

bool isInScope() {
    const std::lock_guard guard(arrangement().lock);
    return static_cast<bool>(arrangement().leave);
}

void askToLeave() {
    const std::lock_guard guard(arrangement().lock);
    if (arrangement().leave) arrangement().leave();
}

int wrapUp() {
    const std::lock_guard guard(arrangement().lock);
    return arrangement().wrapUp ? arrangement().wrapUp() : 0;
}

// Lets the main thread end the process, or ends it.
void answer(int signal) {
    const bool isIgnored = arrangement().ignored.contains(signal);
    if (!isInScope()) {
        if (isIgnored) return;
        endBySignal(signal);
    }
    // A shell that starts a command behind itself has it ignore SIGINT, but asks for it here.
    if (isIgnored && signal == platform::signal_number::hangup()) return;
    const platform::Milliseconds end = platform::monotonicMs() + kPatience;
    while (platform::monotonicMs() < end) {
        askToLeave();  // again: a loop that has only just begun forgets an earlier asking
        const int another = platform::awaitSignal(endingSignals(), kStep);
        if (another != 0) endBySignal(another);
    }
    int status = wrapUp();
    if (!tryCloseOutput(status, kOutputWait)) endBySignal(signal);
    platform::exitNow(status);
}

void watchSignals() {
    for (;;) answer(platform::awaitSignal(endingSignals(), -1));
}

}  // namespace

int runProgram(const std::function<int()>& body) {
    platform::reserveStandardStreams();
    platform::ignoreSignal(platform::signal_number::brokenPipe());
    for (const int signal : endingSignals()) {
        if (platform::isSignalIgnored(signal)) arrangement().ignored.insert(signal);
    }
    platform::blockSignals(endingSignals());
    std::thread(watchSignals).detach();
    return closeOutput(body());
}

SignalScope::SignalScope(std::function<void()> leave, std::function<int()> wrapUp) {
    const std::lock_guard guard(arrangement().lock);
    arrangement().leave = std::move(leave);
    arrangement().wrapUp = std::move(wrapUp);
}

SignalScope::~SignalScope() {
    const std::lock_guard guard(arrangement().lock);
    arrangement().leave = nullptr;
    arrangement().wrapUp = nullptr;
}

}  // namespace kvx::bus
