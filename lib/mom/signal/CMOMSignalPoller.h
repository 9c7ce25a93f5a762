#pragma once

#include "platform/Export.h"
#include "rv/object/RvTimerCallback.h"

class CVekRvNet;

/// Processes the caught signals each time its timer fires. Main thread.
class KVX_API CMOMSignalPoller : public RvTimerCallback {
  public:
    /// `net` must outlive the poller.
    explicit CMOMSignalPoller(CVekRvNet* net);
    ~CMOMSignalPoller() override;
    CMOMSignalPoller(const CMOMSignalPoller&) = delete;
    CMOMSignalPoller& operator=(const CMOMSignalPoller&) = delete;

    void onTimer(RvTimer* timer) override;

    CVekRvNet* m_net;            // not owned
    RvTimer* m_timer = nullptr;  // the last that fired; owned by the net
};
