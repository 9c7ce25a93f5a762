#pragma once

#include "platform/Export.h"
#include "rv/object/RvTimerCallback.h"

class CVekRvNet;

/// Lets the signals that were caught take effect, each time its timer fires. Main thread.
class KVX_API CMOMSignalPoller : public RvTimerCallback {
  public:
    /// `net`, which the poller serves, must outlive it.
    explicit CMOMSignalPoller(CVekRvNet* net);
    ~CMOMSignalPoller() override;
    CMOMSignalPoller(const CMOMSignalPoller&) = delete;
    CMOMSignalPoller& operator=(const CMOMSignalPoller&) = delete;

    void onTimer(RvTimer* timer) override;

    CVekRvNet* net() const { return m_net; }

    /// The timer that fired the poller last; null before the first time.
    RvTimer* timer() const { return m_timer; }

  private:
    CVekRvNet* m_net;            // not owned
    RvTimer* m_timer = nullptr;  // owned by the net
};
