#pragma once

#include "rv/object/RvCallback.h"

class RvIO;

/// Is called when a watched socket is ready. Loop thread only.
class KVX_API RvIOCallback : public RvCallback {
  public:
    ~RvIOCallback() override;
    /// `io` says which socket and which condition. It, its session and this callback may be
    /// destroyed here.
    virtual void onIO(RvIO* io) = 0;
};
