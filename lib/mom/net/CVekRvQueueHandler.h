#pragma once

#include "mom/net/SVekRvQueue.h"
#include "platform/Export.h"
#include "rv/rv.h"

class CVekRvNet;
namespace kvx {
class NetWatch;
}

/// The timer callback that creates, on the main thread, what other threads asked the net for.
///
/// Loop thread only. Holds the net's request mutex for taking a request and for posting its answer,
/// not while it makes the object, which may run user code: that may call the net, end its session
/// or destroy it.
class KVX_API CVekRvQueueHandler : public RvTimerCallback {
  public:
    /// `net` must outlive the handler. A null net is reported with -220552, and a tick then does
    /// nothing.
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
        void* object;                // null when it could not be made
        RvSessionObject* unclaimed;  // the object; null for an I/O handler, which is the net's
        int notMadeLine;
        int notPostedLine;
    };
    static void* nextRequest(CVekRvNet& net);
    void dispatch(void* request);
    static void post(CVekRvNet& net, const kvx::NetWatch& watch, int threadId, const Made& made);
    CVekRvNet* m_net;
};
