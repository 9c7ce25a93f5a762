#pragma once

#include <functional>

#include "foundation/CSignalHandlerInterface.h"
#include "platform/Export.h"

class CMOMSignalPoller;
class CVekNet;

/// The signals of a process that runs the bus main loop.
///
/// SIGINT, SIGTERM and SIGUSR1 end the process with status 0, SIGHUP is ignored, and SIGUSR2 steps
/// the debug level through 0 to 4. While a net is managed, every signal takes effect on the main
/// thread at a turn of its main loop, within about 100 milliseconds; otherwise it does nothing.
///
/// Callbacks run without a lock and may call everything: one that stops the handler, destroys it or
/// ends the net's session drops the signals that were caught with its own.
///
/// One handler manages at a time. Everything but `runHandler` and `shutdown` is for the main
/// thread. A copy shares the poller with its source: only one of the two may stop or be destroyed
/// managing.
class KVX_API CMOMSignalHandler : public CSignalHandlerInterface {
  public:
    /// Manages nothing yet.
    CMOMSignalHandler();
    CMOMSignalHandler(const CMOMSignalHandler&) = default;
    CMOMSignalHandler& operator=(const CMOMSignalHandler&) = default;

    /// Stops; at debug level 1 or more it says so when it still managed a net.
    ~CMOMSignalHandler() override;

    /// Handles the process's signals in the main loop of `net`, which must be a `CVekRvNet` and
    /// must outlive the managing. Null does nothing; another kind of net is reported (-220552) and
    /// does nothing either.
    void manage(CVekNet* net);

    /// The same, but SIGINT, SIGTERM and SIGUSR1 call `leave` on the main thread instead of ending
    /// the process, so that it can end in its own order; `leave` usually calls `RRNStopLoop`.
    void manage(CVekNet* net, std::function<void()> leave);

    /// Gives the signals back to the system's default. To be called after the main loop has run:
    /// before that the net keeps the poller's timer until it ends itself, which does no harm.
    void stop();

    /// Blocks the five signals in the calling thread, so that another one catches them.
    static void blockAllSignals();

    /// Says "Shutdown message received!" and ends the process with status 0 at the next turns of
    /// the main loop, as SIGUSR1 does.
    void shutdown(int);

    /// The next debug level, of 0 to 4 in turn.
    void raiseDebugLevel(int);

    void doNothing(int);

    /// Ends the process with status 0, or calls the `leave` of `manage`.
    void callExitHandler(int);

    /// Registers the callbacks of the five signals; `exitCallback`, when given,
    /// replaces the one that ends the process; the port library keeps it. Returns true; a refused
    /// signal is reported (-220536).
    bool registerHandler(CCallbackBase* exitCallback) override;

    /// Has `callback` run at the next turn of the main loop. Any thread. Returns true.
    bool runHandler(CCallbackBase* callback) override;

    CVekNet* m_net = nullptr;              // not owned; null when not managing
    CMOMSignalPoller* m_poller = nullptr;  // owned

  private:
    std::function<void()> m_leave;
};
