#include "rv/object/RvIO.h"

#include <new>

#include "rv/error/RvStatus.h"
#include "rv/error/rvCodes.h"
#include "rv/object/EventState.h"
#include "rv/object/RvIOCallback.h"
#include "rv/object/SessionBlock.h"
#include "rv/session/rvSessionEvents.h"

namespace kvx::detail {

struct IoState : EventState {
    IoState(RvIO* owner, unsigned int watched, rvevm_IoEventType condition)
        : EventState{owner}, socket(watched), type(condition) {}

    static void onReady(void* session, void* closure, int kind, void* entry);

    unsigned int socket;
    rvevm_IoEventType type;
    rvevm_Id id = nullptr;
};

// User code runs last: it may destroy the watch, its session and its callback.
void IoState::onReady(void* session, void* closure, int /*kind*/, void* /*entry*/) {
    auto& state = *static_cast<IoState*>(closure);
    auto* io = static_cast<RvIO*>(state.event);
    if (auto* alive = static_cast<RvIOCallback*>(io->callback())) {
        alive->onIO(io);
        return;
    }
    rv_RemoveIO(static_cast<rv_Session>(session), state.id);
    state.id = nullptr;
}

}  // namespace kvx::detail

using kvx::detail::IoState;

RvIO::RvIO(RvSessionBlock* block, unsigned int socket, rvevm_IoEventType type,
           RvIOCallback* callback, void* closure)
    : RvEvent(block, callback, closure), m_state(new (std::nothrow) IoState(this, socket, type)) {
    if (m_state == nullptr) {
        *m_block->status = RvStatus(kvx::session_code::kNoMemory);
        return;
    }
    const int code =
        rv_AddIO(m_block->handle, &m_state->id, socket, type, IoState::onReady, m_state);
    *m_block->status = RvStatus::eventManager(code);
}

RvIO::~RvIO() {
    if (m_state == nullptr) return;
    m_state->event = nullptr;
    if (m_state->id != nullptr) rv_RemoveIO(m_block->core, m_state->id);
    kvx::detail::StateHold::drop(m_state);
}

unsigned int RvIO::socket() const {
    return m_state->socket;
}

rvevm_IoEventType RvIO::eventType() const {
    return m_state->type;
}
