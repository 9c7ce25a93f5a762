#pragma once

#include <span>

#include "platform/Clock.h"
#include "platform/Export.h"

/// Signals of the operating system, by its own numbers. Process-wide unless stated; any thread.
namespace kvx::platform {

/// The system's numbers of the signals that the programs of this project use.
namespace signal_number {
[[nodiscard]] KVX_API int interrupt() noexcept;   ///< SIGINT
[[nodiscard]] KVX_API int terminate() noexcept;   ///< SIGTERM
[[nodiscard]] KVX_API int hangup() noexcept;      ///< SIGHUP
[[nodiscard]] KVX_API int brokenPipe() noexcept;  ///< SIGPIPE
[[nodiscard]] KVX_API int fileSize() noexcept;    ///< SIGXFSZ
[[nodiscard]] KVX_API int user1() noexcept;       ///< SIGUSR1
[[nodiscard]] KVX_API int user2() noexcept;       ///< SIGUSR2
}  // namespace signal_number

/// Runs on whatever thread the signal interrupts: it may set lock-free atomics and call
/// `WakeUp::notify`, and nothing else.
using SignalHandler = void (*)(int signal);

/// Installs `handler`; it stays installed after a signal, and interrupted system calls are
/// restarted where the system can. False when the system refuses the number.
[[nodiscard]] KVX_API bool installSignalHandler(int signal, SignalHandler handler) noexcept;

/// When an installed handler last handled a signal, on the monotonic clock; the least value when
/// none has. For code that blocks a loop, where a signal may wait for the next turn. Any thread.
[[nodiscard]] KVX_API Milliseconds lastSignalMs() noexcept;

/// Restores the system's default handling.
KVX_API void restoreDefaultSignal(int signal) noexcept;

/// Ignores the signal.
KVX_API void ignoreSignal(int signal) noexcept;

/// Blocks (or unblocks) these signals in the calling thread, and in threads that it starts later.
KVX_API void blockSignals(std::span<const int> signals) noexcept;
KVX_API void unblockSignals(std::span<const int> signals) noexcept;

/// True when the process ignores the signal.
[[nodiscard]] KVX_API bool isSignalIgnored(int signal) noexcept;

/// Waits until one of these signals, which every thread must have blocked, is pending, and consumes
/// it. Returns its number, or 0 when `timeout` (negative for no limit) passes first.
[[nodiscard]] KVX_API int awaitSignal(std::span<const int> signals, Milliseconds timeout) noexcept;

/// True when the calling thread has the signal blocked.
[[nodiscard]] KVX_API bool isSignalBlocked(int signal) noexcept;

/// Sends the signal to the calling thread; an unblocked handler has run when this returns.
KVX_API bool raiseSignal(int signal) noexcept;

}  // namespace kvx::platform
