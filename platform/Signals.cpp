#include "platform/Signals.h"

#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstddef>
#include <ctime>
#include <limits>

#include "platform/SignalMask.h"

namespace kvx::platform {

namespace {

constexpr Milliseconds kNever = std::numeric_limits<Milliseconds>::min();

std::array<std::atomic<SignalHandler>, NSIG> handlers{};
std::atomic<Milliseconds> lastCaught{kNever};
static_assert(std::atomic<SignalHandler>::is_always_lock_free &&
              std::atomic<Milliseconds>::is_always_lock_free);

void onSignal(int signal) {
    handlers[static_cast<std::size_t>(signal)].load()(signal);
    lastCaught = monotonicMs();
}

bool setDisposition(int signal, SignalHandler handler) noexcept {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    return ::sigaction(signal, &action, nullptr) == 0;
}

}  // namespace

namespace signal_number {
int interrupt() noexcept {
    return SIGINT;
}
int terminate() noexcept {
    return SIGTERM;
}
int hangup() noexcept {
    return SIGHUP;
}
int brokenPipe() noexcept {
    return SIGPIPE;
}
int fileSize() noexcept {
    return SIGXFSZ;
}
int user1() noexcept {
    return SIGUSR1;
}
int user2() noexcept {
    return SIGUSR2;
}
}  // namespace signal_number

bool installSignalHandler(int signal, SignalHandler handler) noexcept {
    if (signal < 0 || static_cast<std::size_t>(signal) >= handlers.size()) return false;
    handlers[static_cast<std::size_t>(signal)] = handler;
    return setDisposition(signal, onSignal);
}

Milliseconds lastSignalMs() noexcept {
    return lastCaught;
}

void restoreDefaultSignal(int signal) noexcept {
    setDisposition(signal, SIG_DFL);
}

void ignoreSignal(int signal) noexcept {
    setDisposition(signal, SIG_IGN);
}

void blockSignals(std::span<const int> signals) noexcept {
    const sigset_t mask = maskOf(signals);
    ::pthread_sigmask(SIG_BLOCK, &mask, nullptr);
}

void unblockSignals(std::span<const int> signals) noexcept {
    const sigset_t mask = maskOf(signals);
    ::pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
}

bool isSignalIgnored(int signal) noexcept {
    struct sigaction now {};
    return ::sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_IGN;
}

int awaitSignal(std::span<const int> signals, Milliseconds timeout) noexcept {
    const sigset_t mask = maskOf(signals);
    if (timeout < 0) {
        int signal = 0;
        return ::sigwait(&mask, &signal) == 0 ? signal : 0;
    }
    const timespec limit{static_cast<time_t>(timeout / 1000),
                         static_cast<long>(timeout % 1000 * 1'000'000)};
    return std::max(::sigtimedwait(&mask, nullptr, &limit), 0);
}

bool isSignalBlocked(int signal) noexcept {
    sigset_t mask;
    sigemptyset(&mask);
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signal) == 1;
}

bool raiseSignal(int signal) noexcept {
    return ::pthread_kill(::pthread_self(), signal) == 0;
}

}  // namespace kvx::platform
