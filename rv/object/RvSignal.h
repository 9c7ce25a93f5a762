#pragma once

#include "rv/object/RvEvent.h"

class RvSignalCallback;

namespace kvx::detail {
struct SignalState;
}

/// A caught signal. Made by `RvSession::newSignal`; the caller owns it, and deleting it restores
/// the default handling.
///
/// When the callback is destroyed first, the next signal detaches this object without ending the
/// registration: the slot stays taken, without effect, until the session closes.
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
