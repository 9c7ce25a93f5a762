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
/// Callbacks run without a lock and may call everything. One that stops or destroys the handler or
/// ends the net's session drops the other signals caught at the same time.
///
/// One handler manages at a time. Main thread only, except `runHandler` and `shutdown`. A copy
/// shares the poller with its source: only one of the two may stop, or be destroyed while managing.
class KVX_API CMOMSignalHandler : public CSignalHandlerInterface {
  public:
    /// Manages nothing yet.
    CMOMSignalHandler();
    CMOMSignalHandler(const CMOMSignalHandler&) = default;
    CMOMSignalHandler& operator=(const CMOMSignalHandler&) = default;

    /// Stops; writes a trace at debug level 1 when it still managed a net.
    ~CMOMSignalHandler() override;

    /// Handles the process's signals in the main loop of `net`, which must be a `CVekRvNet` and
    /// must outlive this, or `stop` must be called first. Null does nothing; another kind of net is
    /// reported (-220552) and ignored.
    void manage(CVekNet* net);

    /// The same, but SIGINT, SIGTERM and SIGUSR1 call `leave` on the main thread instead of ending
    /// the process, so that it can end in its own order; `leave` usually calls `RRNStopLoop`.
    void manage(CVekNet* net, std::function<void()> leave);

    /// Restores the system's default handling. Call it after the main loop has run; before that the
    /// net keeps the poller's timer, without effect, until it is destroyed.
    void stop();

    /// Blocks the five signals in the calling thread, so that another one catches them.
    static void blockAllSignals();

    /// Writes "Shutdown message received!" and, like SIGUSR1, ends the process with status 0 at the
    /// next turns of the main loop.
    void shutdown(int);

    /// The next debug level, of 0 to 4 in turn.
    void raiseDebugLevel(int);

    void doNothing(int);

    /// Ends the process with status 0, or calls the `leave` of `manage`.
    void callExitHandler(int);

    /// Registers the callbacks of the five signals; `exitCallback`, when given, replaces the one
    /// that ends the process, and is owned by the port library. Returns true; reports a refused
    /// signal (-220536).
    bool registerHandler(CCallbackBase* exitCallback) override;

    /// Runs `callback` at the next turn of the main loop. Any thread. Returns true.
    bool runHandler(CCallbackBase* callback) override;

    CVekNet* m_net = nullptr;              // not owned; null when not managing
    CMOMSignalPoller* m_poller = nullptr;  // owned

  private:
    std::function<void()> m_leave;
};
