#pragma once

#include "rv/object/RvEvent.h"

class RvDataCallback;
class RvDatumFilter;

namespace kvx::detail {
struct EventState;
struct ListenerState;
}  // namespace kvx::detail

/// A subscription, or an inbox. Made by `RvSession::newListener`, `newInbox` and
/// `RvSender::sendRequest`; the caller owns it, and deleting it cancels the subscription.
class KVX_API RvListener : public RvEvent {
  public:
    ~RvListener() override;

    /// The subject listened on; for an inbox the generated one. Owned by the listener.
    const char* subject() const;

    /// Whether this listens on an inbox of its own.
    bool isInbox() const;

    /// The session's filter at creation, or null when there was none or it was destroyed.
    RvDatumFilter* inboundFilter() const;

  private:
    friend class RvSender;
    friend class RvSession;
    friend struct kvx::detail::ListenerState;

    /// `subject` null makes an inbox. Stores the outcome in the block's status.
    RvListener(RvSessionBlock* block, const char* subject, unsigned long timeoutMs,
               RvDataCallback* callback, void* closure);

    kvx::detail::EventState& state() const;
    void takeInboundFilter(const kvx::detail::CallbackReference& filter);

    kvx::detail::ListenerState* m_state;
};
