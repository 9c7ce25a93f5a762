#include "platform/Signals.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <ctime>

namespace kvx::platform {

namespace {

bool setDisposition(int signal, SignalHandler handler) noexcept {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    return ::sigaction(signal, &action, nullptr) == 0;
}

sigset_t maskOf(std::span<const int> signals) noexcept {
    sigset_t mask;
    sigemptyset(&mask);
    for (const int signal : signals) sigaddset(&mask, signal);
    return mask;
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
int user1() noexcept {
    return SIGUSR1;
}
int user2() noexcept {
    return SIGUSR2;
}
}  // namespace signal_number

bool installSignalHandler(int signal, SignalHandler handler) noexcept {
    return setDisposition(signal, handler);
}

void restoreDefaultSignal(int signal) noexcept {
    setDisposition(signal, SIG_DFL);
}

bool exchangeSignalHandler(int signal, SignalHandler from, SignalHandler to) noexcept {
    const auto dispositionOf = [](SignalHandler handler) {
        return handler != nullptr ? handler : SIG_DFL;
    };
    struct sigaction now {};
    if (::sigaction(signal, nullptr, &now) != 0) return false;
    return now.sa_handler == dispositionOf(from) && setDisposition(signal, dispositionOf(to));
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
