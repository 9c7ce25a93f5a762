#pragma once

#include "platform/Export.h"
#include "rv/error/RvStatus.h"
#include "rv/event/rvevm.h"
#include "rv/object/CallbackReference.h"
#include "rv/session/rv_Session.h"

class RvDataCallback;
class RvDatumFilter;
class RvIO;
class RvIOCallback;
class RvListener;
class RvSender;
class RvSignal;
class RvSignalCallback;
class RvTimer;
class RvTimerCallback;
struct RvSessionBlock;

namespace kvx {

/// As the subject of `RvSession::newListener`, makes an inbox. Compared by address: an equal text
/// elsewhere is an ordinary subject.
KVX_API extern const char inboxMarker[];

}  // namespace kvx

/// An open connection to the bus daemon, and the factory of everything that uses it.
///
/// Each `new...` operation returns an object that the caller owns, or null with the reason in
/// `status()`: 2 for a closed or missing session, 3 for a missing callback or subject, 20 when
/// memory ran out, and the codes of the session (category 0) and of the event manager (category 2).
/// The session, its objects and their callbacks may be destroyed in any order, also inside a
/// callback. A destroyed callback is not called. Loop thread only.
class KVX_API RvSession {
  public:
    /// Takes ownership of `handle`. With null everything reports code 2.
    explicit RvSession(rv_Session handle);
    RvSession(const RvSession&) = delete;
    RvSession& operator=(const RvSession&) = delete;

    /// Closes the core session. Objects made from it stay valid and report code 2.
    virtual ~RvSession();

    /// The outcome of the latest operation on this session or on any object made from it.
    RvStatus status() const;

    /// The core session, owned by this object; null when there is none.
    rv_Session handle() const;

    /// A sender on `subject`, whose messages carry `replySubject` unless it is null. Both are
    /// copied. 21 for a null subject.
    RvSender* newSender(const char* subject, const char* replySubject = nullptr);

    RvListener* newListener(const char* subject, RvDataCallback* callback, void* closure);
    /// With a time-out of `timeoutMs` milliseconds until the first message; 0 for none.
    RvListener* newListener(const char* subject, unsigned long timeoutMs, RvDataCallback* callback,
                            void* closure);

    RvListener* newInbox(RvDataCallback* callback, void* closure);
    RvListener* newInbox(unsigned long timeoutMs, RvDataCallback* callback, void* closure);

    /// A one-shot timer.
    RvTimer* newTimer(unsigned long intervalMs, RvTimerCallback* callback, void* closure);
    RvTimer* newTimer(unsigned long intervalMs, rv_Boolean repeat, RvTimerCallback* callback,
                      void* closure);

    /// Watches `socket`, which the caller owns, for one condition.
    RvIO* newIO(unsigned int socket, rvevm_IoEventType type, RvIOCallback* callback, void* closure);

    RvSignal* newSignal(int signal, RvSignalCallback* callback, void* closure);

    /// The filter that senders made from now on take; null for none. Not owned.
    void setOutboundFilter(RvDatumFilter* filter);
    /// The filter that listeners made from now on take; null for none. Not owned.
    void setInboundFilter(RvDatumFilter* filter);

    /// For a session without an event manager: waits up to `timeoutMs` milliseconds for input and
    /// handles one message. Category 0 with the session's code.
    RvStatus dispatch(unsigned long timeoutMs);

  private:
    bool accepts(bool argumentsAreGood, int refusal);
    template <class Object, class... Arguments>
    Object* create(Arguments... arguments);

    RvSessionBlock* m_block;
    kvx::detail::CallbackReference m_outboundFilter;
    kvx::detail::CallbackReference m_inboundFilter;
};
