#pragma once

#include "foundation/CCallbackBase.h"
#include "platform/Export.h"
#include "rv/object/RvTimerCallback.h"

/// Runs a callback once, when its timer fires, and then deletes itself: it must come from `new`.
/// Does not own the callback.
class KVX_API CMOMCallback : public RvTimerCallback {
  public:
    /// `callback` must outlive the timer; null runs nothing.
    explicit CMOMCallback(CCallbackBase* callback);
    /// The copy runs the same callback.
    CMOMCallback(const CMOMCallback&) = default;
    CMOMCallback& operator=(const CMOMCallback&) = default;
    ~CMOMCallback() override;

    /// Main thread.
    void onTimer(RvTimer* timer) override;

    CCallbackBase* m_callback;  // not owned
};
