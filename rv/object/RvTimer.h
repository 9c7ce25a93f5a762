#pragma once

#include "rv/error/RvStatus.h"
#include "rv/object/RvEvent.h"
#include "rv/session/rv_Session.h"

class RvTimerCallback;

namespace kvx::detail {
struct TimerState;
}

/// A timer, one-shot or repeating. Made by `RvSession::newTimer`; the caller owns it, and deleting
/// it stops it. A one-shot timer that has fired does nothing more.
class KVX_API RvTimer : public RvEvent {
  public:
    ~RvTimer() override;

    /// The interval in milliseconds.
    unsigned long interval() const;

    rv_Boolean isRepeating() const;

    /// True while the timer will fire again; false for a one-shot timer from its callback on.
    bool isPending() const;

    /// Starts a new interval now. {0, 2} when the session is closed, {0, 3} after a one-shot timer
    /// has fired, else the event manager's code in category 2.
    RvStatus resetInterval(unsigned long intervalMs);

  private:
    friend class RvSession;
    friend struct kvx::detail::TimerState;

    RvTimer(RvSessionBlock* block, unsigned long intervalMs, rv_Boolean repeat,
            RvTimerCallback* callback, void* closure);

    kvx::detail::TimerState* m_state;
};
