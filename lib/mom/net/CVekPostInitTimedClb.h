#pragma once

#include "platform/Export.h"
#include "rv/rv.h"

/// The one-shot timer callback that runs a network's start-up hook once its main loop turns.
///
/// Its timer's closure is the `CVekRvNet` it serves. Good for one firing: it deletes itself after
/// it, so it must come from `new`.
class KVX_API CVekPostInitTimedClb : public RvTimerCallback {
  public:
    CVekPostInitTimedClb();
    CVekPostInitTimedClb& operator=(const CVekPostInitTimedClb& other);
    ~CVekPostInitTimedClb() override;

    /// Calls `RRNPostInitFns` of the net, then deletes this object. Loop thread only.
    void onTimer(RvTimer* timer) override;

  private:
    /// Not to be used; reports -220552 when it is.
    CVekPostInitTimedClb(const CVekPostInitTimedClb& other);
};
