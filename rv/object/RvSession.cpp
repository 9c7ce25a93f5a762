// The session object, the objects made from it and the user's callbacks are destroyed in any order.
// Two small counted records make that safe: the session block, which says whether the session is
// still open, and a handle per callback, which says whether the callback is alive. A function that
// may run user code holds the block meanwhile and uses no member of the session afterwards.

#include "rv/object/RvSession.h"

#include <memory>
#include <new>

#include "rv/error/rvCodes.h"
#include "rv/object/RvDatumFilter.h"
#include "rv/object/RvIO.h"
#include "rv/object/RvListener.h"
#include "rv/object/RvSender.h"
#include "rv/object/RvSignal.h"
#include "rv/object/RvTimer.h"
#include "rv/object/SessionBlock.h"
#include "rv/session/rvSessionHooks.h"

using kvx::detail::BlockHold;
using kvx::detail::CallbackReference;

const char kvx::inboxMarker[] = "INBOX_MARKER";

RvSession::RvSession(rv_Session handle) : m_block(kvx::detail::newSessionBlock()) {
    if (m_block == nullptr) return;
    m_block->refs = 1;
    if (handle == nullptr) {
        *m_block->status = RvStatus(kvx::session_code::kInvalidSession);
        return;
    }
    m_block->handle = m_block->core = handle;
    m_block->owner = this;
}

// The block is marked closed before the core closes: user code that runs meanwhile sees a closed
// session, but can still remove registrations.
RvSession::~RvSession() {
    if (m_block == nullptr) return;
    rv_Session closing = m_block->handle;
    m_block->handle = nullptr;
    m_block->owner = nullptr;
    *m_block->status = RvStatus(rv_Close(closing));
    kvx::detail::releaseBlock(m_block);
}

RvStatus RvSession::status() const {
    return m_block == nullptr ? RvStatus(kvx::session_code::kInvalidSession) : *m_block->status;
}

rv_Session RvSession::handle() const {
    return m_block == nullptr ? nullptr : m_block->handle;
}

// The first checks of every creation. Without a block the reason cannot be stored.
bool RvSession::accepts(bool argumentsAreGood, int refusal) {
    if (m_block == nullptr) return false;
    if (!argumentsAreGood) {
        *m_block->status = RvStatus(refusal);
    } else if (!rv_IsOpen(m_block->handle)) {
        *m_block->status = RvStatus(kvx::session_code::kInvalidSession);
    } else {
        return true;
    }
    return false;
}

// The constructor registers with the core and stores the outcome in the block. That may run user
// code, which may destroy this session: the object is then refused. Destroying a refused object
// undoes what succeeded, and must not overwrite the reason.
template <class Object, class... Arguments>
Object* RvSession::create(Arguments... arguments) {
    RvSessionBlock& block = *m_block;
    const BlockHold hold(block);
    std::unique_ptr<Object> object(new (std::nothrow) Object(&block, arguments...));
    if (object == nullptr) *block.status = RvStatus(kvx::session_code::kNoMemory);
    if (block.handle == nullptr) *block.status = RvStatus(kvx::session_code::kInvalidSession);
    const RvStatus outcome(*block.status);
    if (!(outcome == 0)) object.reset();
    *block.status = outcome;
    return object.release();
}

RvSender* RvSession::newSender(const char* subject, const char* replySubject) {
    if (!accepts(subject != nullptr, kvx::session_code::kInvalidSubject)) return nullptr;
    auto* sender = create<RvSender>(subject, replySubject);
    if (sender != nullptr) sender->m_outboundFilter = m_outboundFilter;
    return sender;
}

RvListener* RvSession::newListener(const char* subject, RvDataCallback* callback, void* closure) {
    return newListener(subject, 0, callback, closure);
}

RvListener* RvSession::newListener(const char* subject, unsigned long timeoutMs,
                                   RvDataCallback* callback, void* closure) {
    if (!accepts(subject != nullptr && callback != nullptr, kvx::session_code::kInvalidArgument)) {
        return nullptr;
    }
    const CallbackReference filter = m_inboundFilter;
    const char* wanted = subject == kvx::inboxMarker ? nullptr : subject;
    auto* listener = create<RvListener>(wanted, timeoutMs, callback, closure);
    if (listener != nullptr) listener->takeInboundFilter(filter);
    return listener;
}

RvListener* RvSession::newInbox(RvDataCallback* callback, void* closure) {
    return newListener(kvx::inboxMarker, 0, callback, closure);
}

RvListener* RvSession::newInbox(unsigned long timeoutMs, RvDataCallback* callback, void* closure) {
    return newListener(kvx::inboxMarker, timeoutMs, callback, closure);
}

RvTimer* RvSession::newTimer(unsigned long intervalMs, RvTimerCallback* callback, void* closure) {
    return newTimer(intervalMs, rv_FALSE, callback, closure);
}

RvTimer* RvSession::newTimer(unsigned long intervalMs, rv_Boolean repeat, RvTimerCallback* callback,
                             void* closure) {
    if (!accepts(callback != nullptr, kvx::session_code::kInvalidArgument)) return nullptr;
    return create<RvTimer>(intervalMs, repeat, callback, closure);
}

RvIO* RvSession::newIO(unsigned int socket, rvevm_IoEventType type, RvIOCallback* callback,
                       void* closure) {
    if (!accepts(callback != nullptr, kvx::session_code::kInvalidArgument)) return nullptr;
    return create<RvIO>(socket, type, callback, closure);
}

RvSignal* RvSession::newSignal(int signal, RvSignalCallback* callback, void* closure) {
    if (!accepts(callback != nullptr, kvx::session_code::kInvalidArgument)) return nullptr;
    return create<RvSignal>(signal, callback, closure);
}

void RvSession::setOutboundFilter(RvDatumFilter* filter) {
    m_outboundFilter = CallbackReference(filter == nullptr ? nullptr : filter->m_handle);
}

void RvSession::setInboundFilter(RvDatumFilter* filter) {
    m_inboundFilter = CallbackReference(filter == nullptr ? nullptr : filter->m_handle);
}

RvStatus RvSession::dispatch(unsigned long timeoutMs) {
    if (m_block == nullptr) return RvStatus(kvx::session_code::kInvalidSession);
    RvSessionBlock& block = *m_block;
    const BlockHold hold(block);
    const RvStatus outcome(rv_Dispatch(block.handle, timeoutMs));
    *block.status = outcome;
    return outcome;
}
