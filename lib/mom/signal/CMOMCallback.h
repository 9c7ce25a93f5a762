#pragma once

#include "foundation/CCallbackBase.h"
#include "platform/Export.h"
#include "rv/object/RvTimerCallback.h"

/// Runs a callback once, when the timer that it is added with fires, and then deletes itself: it
/// must come from `new`. The callback stays its owner's.
class KVX_API CMOMCallback : public RvTimerCallback {
  public:
    /// `callback` must live until the timer has fired; null runs nothing.
    explicit CMOMCallback(CCallbackBase* callback);
    /// The copy runs the same callback.
    CMOMCallback(const CMOMCallback&) = default;
    CMOMCallback& operator=(const CMOMCallback&) = default;
    ~CMOMCallback() override;

    /// Main thread.
    void onTimer(RvTimer* timer) override;

    CCallbackBase* m_callback;  // not owned
};
