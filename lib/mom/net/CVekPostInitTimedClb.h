#pragma once

#include "platform/Export.h"
#include "rv/rv.h"

/// The one-shot timer callback that runs a network's start-up hook in the main loop.
///
/// Its timer's closure is the `CVekRvNet`. It deletes itself after it has fired, so it must come
/// from `new`.
class KVX_API CVekPostInitTimedClb : public RvTimerCallback {
  public:
    CVekPostInitTimedClb();
    CVekPostInitTimedClb& operator=(const CVekPostInitTimedClb& other);
    ~CVekPostInitTimedClb() override;

    /// Calls `RRNPostInitFns` of the net, then deletes this object. Loop thread only.
    void onTimer(RvTimer* timer) override;

  private:
    /// Not to be used: reports -220552.
    CVekPostInitTimedClb(const CVekPostInitTimedClb& other);
};
