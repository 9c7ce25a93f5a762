#pragma once

#include "rv/object/RvCallback.h"

class RvIO;

/// Called when a watched socket is ready. Loop thread only.
class KVX_API RvIOCallback : public RvCallback {
  public:
    ~RvIOCallback() override;
    /// `io` has the socket and the condition. It, its session and this callback may be destroyed
    /// here.
    virtual void onIO(RvIO* io) = 0;
};
