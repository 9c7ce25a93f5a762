#pragma once

#include "rv/object/RvCallback.h"

class RvTimer;

/// Is called when a timer fires. Loop thread only.
class KVX_API RvTimerCallback : public RvCallback {
  public:
    ~RvTimerCallback() override;
    /// `timer` is the one that fired. It, its session and this callback may be destroyed here.
    virtual void onTimer(RvTimer* timer) = 0;
};
