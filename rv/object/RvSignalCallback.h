#pragma once

#include "rv/object/RvCallback.h"

class RvSignal;

/// Is called from the event loop after a signal was caught, never from the signal handler itself.
/// Loop thread only.
class KVX_API RvSignalCallback : public RvCallback {
  public:
    ~RvSignalCallback() override;
    /// `signal` says which number. It, its session and this callback may be destroyed here.
    virtual void onSignal(RvSignal* signal) = 0;
};
