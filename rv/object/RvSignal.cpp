// A signal event whose callback was destroyed tries to end its registration with the removal of a
// timer, which does not know the id. So the slot stays taken, with the state as its closure,
// although the signal object has dropped it. The session block therefore keeps such a state until
// the core session is closed, even after the signal object is destroyed.

#include "rv/object/RvSignal.h"

#include <new>

#include "rv/error/RvStatus.h"
#include "rv/error/rvCodes.h"
#include "rv/object/EventState.h"
#include "rv/object/RvSignalCallback.h"
#include "rv/object/SessionBlock.h"
#include "rv/session/rvSessionEvents.h"

namespace kvx::detail {

struct SignalState : EventState {
    SignalState(RvSignal* owner, int number) : EventState{owner}, signal(number) {}

    static void onSignal(void* session, void* closure, int kind, void* entry);
    void abandon(rv_Session session);

    int signal;
    rvevm_Id id = nullptr;  // null also for an abandoned registration
    SignalState* next = nullptr;
};

void SignalState::onSignal(void* session, void* closure, int /*kind*/, void* /*entry*/) {
    auto& state = *static_cast<SignalState*>(closure);
    if (state.id == nullptr) return;
    auto* signal = static_cast<RvSignal*>(state.event);
    if (auto* alive = static_cast<RvSignalCallback*>(signal->callback())) {
        alive->onSignal(signal);
        return;
    }
    state.abandon(static_cast<rv_Session>(session));
}

void SignalState::abandon(rv_Session session) {
    rv_RemoveTimer(session, id);
    id = nullptr;
    RvSessionBlock& block = *static_cast<RvSignal*>(event)->m_block;
    next = block.abandonedSignals;
    block.abandonedSignals = this;
    ++holders;
}

void freeSignals(SignalState* first) {
    while (first != nullptr) {
        SignalState* next = first->next;
        StateHold::drop(first);
        first = next;
    }
}

}  // namespace kvx::detail

using kvx::detail::SignalState;

RvSignal::RvSignal(RvSessionBlock* block, int signal, RvSignalCallback* callback, void* closure)
    : RvEvent(block, callback, closure), m_state(new (std::nothrow) SignalState(this, signal)) {
    if (m_state == nullptr) {
        *m_block->status = RvStatus(kvx::session_code::kNoMemory);
        return;
    }
    const int code =
        rv_AddSignal(m_block->handle, &m_state->id, signal, SignalState::onSignal, m_state);
    *m_block->status = RvStatus::eventManager(code);
}

RvSignal::~RvSignal() {
    if (m_state == nullptr) return;
    m_state->event = nullptr;
    if (m_state->id != nullptr) rv_RemoveSignal(m_block->core, m_state->id);
    kvx::detail::StateHold::drop(m_state);
}

int RvSignal::signal() const {
    return m_state->signal;
}
