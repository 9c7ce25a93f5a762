// A delivery runs user code twice: the inbound filter, then `onData`. The filter may destroy the
// listener, the callback or the session, so everything is looked up again after it. After `onData`
// only the delivery's own datum and reply sender are used, which hold the session block themselves.

#include "rv/object/RvListener.h"

#include <memory>
#include <new>

#include "rv/error/rvCodes.h"
#include "rv/message/RvMsg.h"
#include "rv/object/EventState.h"
#include "rv/object/FilteredDatum.h"
#include "rv/object/RvDataCallback.h"
#include "rv/object/RvSender.h"
#include "rv/object/RvSession.h"
#include "rv/object/SessionBlock.h"
#include "rv/session/rvSessionEvents.h"
#include "rv/wire/Limits.h"

namespace kvx::detail {

struct ListenerState : EventState {
    explicit ListenerState(RvListener* owner) : EventState{owner} {}

    RvListener* listener() const { return static_cast<RvListener*>(event); }
    RvDataCallback* callback() const {
        return event == nullptr ? nullptr : static_cast<RvDataCallback*>(event->callback());
    }
    bool isOpen() const { return event != nullptr && listener()->m_block->handle != nullptr; }

    void cancelTimeout(rv_Session session) {
        if (timeout == nullptr) return;
        rv_RemoveTimer(session, timeout);
        timeout = nullptr;
    }
    int cancelListen(rv_Session session) {
        rv_Listener cancelled = listen;
        listen = nullptr;
        return rv_Cancel(session, cancelled);
    }

    int subscribe(rv_Session session, const char* wanted);
    void deliver(const char* messageSubject, const char* reply, RvDatum& datum) const;

    static void onMessage(rv_Session session, const char* subject, const char* reply,
                          rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, void* closure);
    static void onTimeout(void* session, void* closure, int kind, void* id);

    Text subject;
    rv_Listener listen = nullptr;
    rvevm_Id timeout = nullptr;
    bool isInbox = false;
    CallbackReference inboundFilter;
};

// Returns a session code.
int ListenerState::subscribe(rv_Session session, const char* wanted) {
    isInbox = wanted == nullptr;
    subject =
        isInbox ? Text(static_cast<char*>(std::calloc(wire::kInboxCapacity, 1))) : copyText(wanted);
    if (subject == nullptr) return kvx::session_code::kNoMemory;
    const int code = isInbox ? rv_CreateInbox(session, &listen, subject.get(), wire::kInboxCapacity,
                                              onMessage, this)
                             : rv_Listen(session, &listen, subject.get(), onMessage, this);
    return code;
}

void ListenerState::onMessage(rv_Session session, const char* subject, const char* reply,
                              rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, void* closure) {
    auto& state = *static_cast<ListenerState*>(closure);
    if (!state.isOpen()) return;
    const StateHold hold(state);
    state.cancelTimeout(session);
    if (state.callback() == nullptr) {
        state.cancelListen(session);
        return;
    }
    if (type == RVMSG_MSG) {
        RvMsg message(const_cast<rvmsg_Msg>(data));
        return state.deliver(subject, reply, message);
    }
    RvDatum datum(type, size, data);
    state.deliver(subject, reply, datum);
}

void ListenerState::deliver(const char* messageSubject, const char* reply, RvDatum& datum) const {
    RvSessionBlock& block = *listener()->m_block;
    const BlockHold hold(block);
    std::unique_ptr<RvSender> replyTo;
    if (reply != nullptr) replyTo.reset(block.owner->newSender(reply));
    const FilteredDatum filtered(inboundFilter, datum, listener());
    if (filtered.get() == nullptr || !isOpen()) return;
    if (RvDataCallback* alive = callback()) {
        alive->onData(messageSubject, replyTo.get(), *filtered.get(), listener());
    }
}

void ListenerState::onTimeout(void* /*session*/, void* closure, int /*kind*/, void* /*id*/) {
    auto& state = *static_cast<ListenerState*>(closure);
    state.timeout = nullptr;
    if (RvDataCallback* alive = state.callback()) alive->onTimeout(state.listener());
}

}  // namespace kvx::detail

using kvx::detail::ListenerState;

RvListener::RvListener(RvSessionBlock* block, const char* subject, unsigned long timeoutMs,
                       RvDataCallback* callback, void* closure)
    : RvEvent(block, callback, closure), m_state(new (std::nothrow) ListenerState(this)) {
    const unsigned code = m_state == nullptr ? kvx::session_code::kNoMemory
                                             : m_state->subscribe(m_block->handle, subject);
    *m_block->status = RvStatus(code);
    if (code != 0 || timeoutMs == 0 || m_block->handle == nullptr) return;
    *m_block->status = RvStatus::eventManager(rv_AddTimer(
        m_block->handle, &m_state->timeout, timeoutMs, ListenerState::onTimeout, m_state));
}

RvListener::~RvListener() {
    if (m_state == nullptr) return;
    m_state->event = nullptr;
    RvSessionBlock& block = *m_block;
    m_state->cancelTimeout(block.core);
    if (m_state->listen != nullptr) {
        const int code = m_state->cancelListen(block.core);
        if (block.handle != nullptr) *block.status = RvStatus(code);
    }
    kvx::detail::StateHold::drop(m_state);
}

const char* RvListener::subject() const {
    return m_state->subject.get();
}

kvx::detail::EventState& RvListener::state() const {
    return *m_state;
}

bool RvListener::isInbox() const {
    return m_state->isInbox;
}

RvDatumFilter* RvListener::inboundFilter() const {
    return m_state->inboundFilter.as<RvDatumFilter>();
}

void RvListener::takeInboundFilter(const kvx::detail::CallbackReference& filter) {
    m_state->inboundFilter = filter;
}
