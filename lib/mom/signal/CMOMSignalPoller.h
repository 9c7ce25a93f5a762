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

    CVekRvNet* m_net;            // not owned
    RvTimer* m_timer = nullptr;  // fired the poller last; owned by the net
};
