#pragma once

#include "rv/object/RvEvent.h"

class RvSignalCallback;

namespace kvx::detail {
struct SignalState;
}

/// A caught signal. Made by `RvSession::newSignal`; the caller owns it, and deleting it restores
/// the default handling.
///
/// When the callback dies first, the next signal detaches this object from its registration without
/// ending that: the slot stays taken, and does nothing, until the session closes.
class KVX_API RvSignal : public RvEvent {
  public:
    ~RvSignal() override;

    /// The system's number of the signal.
    int signal() const;

  private:
    friend class RvSession;
    friend struct kvx::detail::SignalState;

    RvSignal(RvSessionBlock* block, int signal, RvSignalCallback* callback, void* closure);

    kvx::detail::SignalState* m_state;
};
