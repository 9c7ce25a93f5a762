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
/// `processSignals` runs what belongs to it on the calling thread. Callbacks that were added are
/// deleted when the process exits, each once. Any thread.
///
/// No lock is held while `registerHandler`, `runHandler` or a callback runs: all of them may call
/// everything here, `stop` included, and destroy the handler. What they stop or replace is not run
/// any more, not even in the same `processSignals`. A `stop` does not wait for a `processSignals`
/// of another thread.
class KVX_API CSignalHandler {
  public:
    static CSignalHandler& Instance();
    CSignalHandler(const CSignalHandler&) = delete;
    CSignalHandler& operator=(const CSignalHandler&) = delete;

    /// Makes `handler` the one to run callbacks, and calls its `registerHandler(nullptr)`.
    /// A handler that dies stops the dispatcher; it must not die while another thread processes
    /// signals. Null only forgets the present one.
    void manage(CSignalHandlerInterface* handler);

    /// Takes ownership of `callback` and catches `signal` from now on; a registration that was
    /// there is replaced. The same callback may be added for several signals. Returns true; false,
    /// and takes nothing, for a number that is none of the five, for null, without memory, and when
    /// the system refuses. The last argument is kept for callers that state it and changes nothing.
    bool add(int signal, CCallbackBase* callback, bool reserved = false);

    /// Acts as if `signal` had been caught; other numbers than the five are ignored.
    void handleSignal(int signal);

    /// Hands the callback of every signal caught since the last call to `runHandler`, in the order
    /// of the numbers. A signal caught several times in between counts once.
    void processSignals();

    /// Forgets the handler, all registrations and all signals that wait, and gives the five back to
    /// the system's default. `manage` works again afterwards.
    void stop();

    /// The number of calls of `stop` so far. Whoever runs a callback later than `runHandler` was
    /// asked to drops it when there was a `stop` in between.
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
    // Everything ever added: a callback that has been handed on may still run after it was
    // replaced.
    std::vector<std::unique_ptr<CCallbackBase>> m_owned;
};
