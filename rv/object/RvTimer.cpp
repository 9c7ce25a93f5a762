#include "rv/object/RvTimer.h"

#include <new>

#include "rv/error/rvCodes.h"
#include "rv/object/EventState.h"
#include "rv/object/RvTimerCallback.h"
#include "rv/object/SessionBlock.h"
#include "rv/session/rvSessionEvents.h"

namespace kvx::detail {

struct TimerState : EventState {
    explicit TimerState(RvTimer* owner) : EventState{owner} {}

    int start(rv_Session session) {
        return repeat != rv_FALSE ? rv_AddRepeatTimer(session, &id, interval, onTimer, this)
                                  : rv_AddTimer(session, &id, interval, onTimer, this);
    }

    static void onTimer(void* session, void* closure, int kind, void* entry);

    unsigned long interval = 0;
    rvevm_Id id = nullptr;
    rv_Boolean repeat = rv_FALSE;
};

// User code runs last: it may destroy the timer, its session and its callback.
void TimerState::onTimer(void* session, void* closure, int /*kind*/, void* /*entry*/) {
    auto& state = *static_cast<TimerState*>(closure);
    auto* timer = static_cast<RvTimer*>(state.event);
    if (auto* alive = static_cast<RvTimerCallback*>(timer->callback())) {
        if (state.repeat == rv_FALSE) state.id = nullptr;
        alive->onTimer(timer);
    } else if (state.repeat != rv_FALSE) {
        rv_RemoveTimer(static_cast<rv_Session>(session), state.id);
        state.id = nullptr;
    }
}

}  // namespace kvx::detail

using kvx::detail::TimerState;

RvTimer::RvTimer(RvSessionBlock* block, unsigned long intervalMs, rv_Boolean repeat,
                 RvTimerCallback* callback, void* closure)
    : RvEvent(block, callback, closure), m_state(new (std::nothrow) TimerState(this)) {
    if (m_state == nullptr) {
        *m_block->status = RvStatus(kvx::session_code::kNoMemory);
        return;
    }
    m_state->interval = intervalMs;
    m_state->repeat = repeat;
    const int code = m_state->start(m_block->handle);
    *m_block->status = RvStatus::eventManager(code);
}

RvTimer::~RvTimer() {
    if (m_state == nullptr) return;
    m_state->event = nullptr;
    if (m_state->id != nullptr) rv_RemoveTimer(m_block->core, m_state->id);
    kvx::detail::StateHold::drop(m_state);
}

unsigned long RvTimer::interval() const {
    return m_state->interval;
}

rv_Boolean RvTimer::isRepeating() const {
    return m_state->repeat;
}

bool RvTimer::isPending() const {
    return m_state->id != nullptr;
}

RvStatus RvTimer::resetInterval(unsigned long intervalMs) {
    RvStatus outcome(kvx::session_code::kInvalidSession);
    if (m_block->handle != nullptr && m_state->id == nullptr) {
        outcome = RvStatus(kvx::session_code::kInvalidArgument);
    } else if (m_block->handle != nullptr) {
        m_state->interval = intervalMs;
        const int code = rv_ResetTimer(m_block->handle, m_state->id, intervalMs);
        outcome = RvStatus::eventManager(code);
    }
    *m_block->status = outcome;
    return outcome;
}
