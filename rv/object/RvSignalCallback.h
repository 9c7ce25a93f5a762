#pragma once

#include "rv/object/RvCallback.h"

class RvSignal;

/// Called from the event loop after a signal was caught, never from the signal handler. Loop thread
/// only.
class KVX_API RvSignalCallback : public RvCallback {
  public:
    ~RvSignalCallback() override;
    /// `signal`, its session and this callback may be destroyed here.
    virtual void onSignal(RvSignal* signal) = 0;
};
