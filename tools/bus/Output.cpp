// Standard output may fail at any write, at a flush, or only at its close, and `errno` is valid
// only directly afterwards; so every step is checked, and the first error is kept.

#include "tools/bus/Output.h"

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <system_error>

#include "platform/Clock.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Program.h"

namespace kvx::bus {

namespace {

std::mutex outputLock;

// Guarded by outputLock.
int failure = 0;  // the system's error number of the first failure
bool closed = false;
int endStatus = 0;  // once closed

// With the lock held.
void note(bool worked) {
    if (!worked && failure == 0) failure = errno != 0 ? errno : EIO;
}

void writeLocked(std::string_view text) {
    if (failure != 0 || closed || text.empty()) return;
    showProgress("");  // both may be on one terminal
    errno = 0;
    note(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

// With the lock held.
int closeLocked(int status) {
    if (closed) return endStatus;
    closed = true;
    endStatus = status;
    errno = 0;
    // An unused stream does not matter, even when it was never open.
    if (failure == 0) note(std::fflush(stdout) == 0);
    if (failure == 0 && std::fclose(stdout) != 0 && errno != EBADF) note(false);
    if (failure == 0) return status;
    complain("standard output: " + std::generic_category().message(failure));
    if (endStatus == 0) endStatus = kFailure;
    return endStatus;
}

}  // namespace

void print(std::string_view text) {
    const std::lock_guard guard(outputLock);
    writeLocked(text);
}

void printLine(std::string_view text) {
    const std::lock_guard guard(outputLock);
    writeLocked(text);
    writeLocked("\n");
}

bool flushOutput() {
    const std::lock_guard guard(outputLock);
    errno = 0;
    if (failure == 0 && !closed) note(std::fflush(stdout) == 0);
    return failure == 0;
}

bool outputHasFailed() {
    const std::lock_guard guard(outputLock);
    return failure != 0;
}

int closeOutput(int status) {
    const std::lock_guard guard(outputLock);
    return closeLocked(status);
}

bool tryCloseOutput(int& status, platform::Milliseconds limit) {
    constexpr platform::Milliseconds kStep = 10;
    std::unique_lock guard(outputLock, std::try_to_lock);
    for (platform::Milliseconds waited = 0; !guard.owns_lock(); waited += kStep) {
        if (waited >= limit) return false;
        platform::sleepMs(kStep);
        static_cast<void>(guard.try_lock());
    }
    status = closeLocked(status);
    return true;
}

}  // namespace kvx::bus
