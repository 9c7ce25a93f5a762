#pragma once

#include "mom/net/SVekRvQueue.h"
#include "platform/Export.h"
#include "rv/rv.h"

class CVekRvNet;
namespace kvx {
class NetWatch;
}

/// The timer callback that creates, on the main thread, the bus objects requested by other threads.
///
/// Loop thread only. Holds the net's request mutex to take a request and to post its answer, not
/// while it makes the object, which may run user code that calls the net, ends its session or
/// destroys it.
class KVX_API CVekRvQueueHandler : public RvTimerCallback {
  public:
    /// `net` must outlive the handler. Reports -220552 for a null net; a tick then does nothing.
    explicit CVekRvQueueHandler(CVekRvNet* net);
    CVekRvQueueHandler(const CVekRvQueueHandler&) = delete;

    /// Serves the other handler's net from now on.
    CVekRvQueueHandler& operator=(const CVekRvQueueHandler& other);
    ~CVekRvQueueHandler() override;

    /// Empties the net's request stack and posts an answer for each valid request.
    /// A record of an unknown type is reported with -220382 and neither answered nor deleted.
    void onTimer(RvTimer* timer) override;

  private:
    void RRQIONewIO(SVekRvQueueIO* request);
    void RRQIONewSender(SVekRvQueueSender* request);
    void RRQIONewListener(SVekRvQueueListener* request);
    void RRQIONewTimer(SVekRvQueueTimer* request);

    struct Made {
        void* object;                // null on failure
        RvSessionObject* unclaimed;  // the object; null for an I/O handler, which the net owns
        int notMadeLine;
        int notPostedLine;
    };
    static void* nextRequest(CVekRvNet& net);
    void dispatch(void* request);
    static void post(CVekRvNet& net, const kvx::NetWatch& watch, int threadId, const Made& made);
    CVekRvNet* m_net;
};
