#pragma once

#include "rv/event/rvevm.h"
#include "rv/object/RvEvent.h"

class RvIOCallback;

namespace kvx::detail {
struct IoState;
}

/// A socket watched for one condition. Made by `RvSession::newIO`; the caller owns it and the
/// socket, and deleting it ends the watch but leaves the socket open.
class KVX_API RvIO : public RvEvent {
  public:
    ~RvIO() override;

    unsigned int socket() const;

    rvevm_IoEventType eventType() const;

  private:
    friend class RvSession;
    friend struct kvx::detail::IoState;

    RvIO(RvSessionBlock* block, unsigned int socket, rvevm_IoEventType type, RvIOCallback* callback,
         void* closure);

    kvx::detail::IoState* m_state;
};
