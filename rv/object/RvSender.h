#pragma once

#include "platform/Memory.h"
#include "rv/error/RvStatus.h"
#include "rv/object/CallbackReference.h"
#include "rv/object/RvSessionObject.h"

class RvDataCallback;
class RvDatum;
class RvListener;

/// Publishes on one subject. Made by `RvSession::newSender`; the caller owns it. Loop thread only.
class KVX_API RvSender : public RvSessionObject {
  public:
    ~RvSender() override;

    /// Publishes `data`, with the reply subject of this sender if it has one. Category 0 with the
    /// session's code: 2 when the session is closed, 3 when the outbound filter refused, 20 when
    /// the message was not kept, 21 for an invalid subject, 22 without a daemon.
    RvStatus send(const RvDatum& data);

    /// As below, without a time-out.
    RvListener* sendRequest(const RvDatum& data, RvDataCallback* callback, void* closure);

    /// Publishes `data` with a new inbox as reply subject; replies come to `callback`, or its
    /// `onTimeout` when none came within `timeoutMs` milliseconds (0: no time-out). The caller owns
    /// the result, and deletes it after the reply or the time-out. Null on failure, with the reason
    /// in the session's status; null with success when `callback` was called meanwhile and deleted
    /// it.
    RvListener* sendRequest(const RvDatum& data, unsigned long timeoutMs, RvDataCallback* callback,
                            void* closure);

    /// Owned by the sender.
    const char* subject() const { return m_subject.get(); }

    /// Owned by the sender; null when there is none.
    const char* replySubject() const { return m_replySubject.get(); }

  private:
    friend class RvSession;

    RvSender(RvSessionBlock* block, const char* subject, const char* replySubject);

    /// Filters and publishes; returns a session code. May destroy this sender.
    int publish(const RvDatum& data, const char* replySubject);

    kvx::detail::CallbackReference m_outboundFilter;
    kvx::Text m_subject;
    kvx::Text m_replySubject;
};
