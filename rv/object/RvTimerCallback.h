#pragma once

#include "rv/object/RvCallback.h"

class RvTimer;

/// Called when a timer fires. Loop thread only.
class KVX_API RvTimerCallback : public RvCallback {
  public:
    ~RvTimerCallback() override;
    /// `timer`, its session and this callback may be destroyed here.
    virtual void onTimer(RvTimer* timer) = 0;
};
