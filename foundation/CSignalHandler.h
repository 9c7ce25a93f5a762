#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/CSignalHandlerInterface.h"

/// The process's signal dispatcher.
///
/// Signals are named by the port library's numbers, the same on every platform: 2 is SIGINT, 15
/// SIGTERM, 34 SIGHUP, 35 SIGUSR1 and 36 SIGUSR2. A signal that arrives only sets a flag;
/// `processSignals` runs its callback on the calling thread. Callbacks that were added are deleted
/// when the process exits, each once. Any thread.
///
/// No lock is held while `registerHandler`, `runHandler` or a callback runs: each may call every
/// operation, `stop` included, and destroy the handler. A callback that is stopped or replaced does
/// not run any more, not even in the same `processSignals`. `stop` does not wait for a
/// `processSignals` on another thread.
class KVX_API CSignalHandler {
  public:
    static CSignalHandler& Instance();
    CSignalHandler(const CSignalHandler&) = delete;
    CSignalHandler& operator=(const CSignalHandler&) = delete;

    /// Sets the handler that runs callbacks, and calls its `registerHandler(nullptr)`. Destroying
    /// the handler stops the dispatcher; it must not be destroyed while another thread processes
    /// signals. Null only removes the current one.
    void manage(CSignalHandlerInterface* handler);

    /// Takes ownership of `callback` and catches `signal` from now on; replaces an earlier
    /// registration. One callback may be added for several signals. Returns false, without taking
    /// ownership, for a number that is none of the five, a null callback, without memory, and when
    /// the system refuses. The last argument is ignored.
    bool add(int signal, CCallbackBase* callback, bool reserved = false);

    /// Acts as if `signal` had been caught; other numbers than the five are ignored.
    void handleSignal(int signal);

    /// Passes the callback of every signal caught since the last call to `runHandler`, in ascending
    /// order of the numbers. A signal caught several times in between counts once.
    void processSignals();

    /// Removes the handler, all registrations and all pending signals, and restores the default
    /// handling of the five. `manage` may be called again afterwards.
    void stop();

    /// The number of calls of `stop` so far. A handler that runs a callback later than `runHandler`
    /// drops it when the number has changed meanwhile.
    unsigned long stops() const { return m_stops.load(); }

    /// Blocks the five in the calling thread.
    static void blockAll();

  private:
    static constexpr std::size_t kSignals = 5;

    friend class CSignalHandlerInterface;
    class ReleaseAtExit;

    // Stops if `handler` is the one that runs callbacks.
    static void forget(const CSignalHandlerInterface* handler);
    void stopLocked();

    CSignalHandler() = default;
    ~CSignalHandler() = default;

    void dropRegistrations();

    std::atomic<unsigned long> m_stops = 0;

    // Guarded by m_mutex.
    std::mutex m_mutex;
    CSignalHandlerInterface* m_interface = nullptr;
    std::array<CCallbackBase*, kSignals> m_callbacks{};
    // Every callback ever added: one that was passed on may still run after it was replaced.
    std::vector<std::unique_ptr<CCallbackBase>> m_owned;
};
