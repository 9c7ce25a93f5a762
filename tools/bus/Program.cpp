// The signals that end a program are blocked in every thread and taken by a dedicated one. So a
// signal is handled whatever the main thread waits for, and the handling is ordinary code: it may
// flush and write. That thread is never joined: it waits until the process ends, and its data is
// never destroyed.

#include "tools/bus/Program.h"

#include <array>
#include <iostream>
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
constexpr platform::Milliseconds kStep = 10;       // between two calls of `leave`
constexpr platform::Milliseconds kOutputWait = 50;

// The main thread's settings for a signal.
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

// Asks the main thread to end the process, and ends it if that takes too long.
void answer(int signal) {
    const bool isIgnored = arrangement().ignored.contains(signal);
    if (!isInScope()) {
        if (isIgnored) return;
        endBySignal(signal);
    }
    // SIGINT is handled although a shell makes a background command ignore it.
    if (isIgnored && signal == platform::signal_number::hangup()) return;
    const platform::Milliseconds end = platform::monotonicMs() + kPatience;
    while (platform::monotonicMs() < end) {
        askToLeave();  // again: a loop that has just begun misses an earlier call
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
    std::cout.rdbuf(std::cerr.rdbuf());
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
