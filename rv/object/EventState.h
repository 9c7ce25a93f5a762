#pragma once

#include <cstdint>

class RvEvent;

namespace kvx::detail {

/// The closure that the core calls back with: the part of an event that outlives it while a
/// callback runs.
///
/// The event holds its state until it is destroyed, and a running dispatch holds it too. After user
/// code, check `event` first: null means that the event was destroyed meanwhile. Each kind of event
/// derives its state from this one.
struct EventState {
    explicit EventState(RvEvent* owner) : event(owner) {}
    EventState(const EventState&) = delete;
    EventState& operator=(const EventState&) = delete;
    virtual ~EventState() = default;

    RvEvent* event;
    std::int32_t holders = 1;
};

/// Holds a state while user code may run.
class StateHold {
  public:
    explicit StateHold(EventState& state) : state_(&state) { ++state.holders; }
    StateHold(const StateHold&) = delete;
    StateHold& operator=(const StateHold&) = delete;
    ~StateHold() { drop(state_); }

    /// False once the event has been destroyed.
    [[nodiscard]] bool hasEvent() const { return state_->event != nullptr; }

    /// Removes a holder; the last one frees the state.
    static void drop(EventState* state) {
        if (--state->holders < 1) delete state;
    }

  private:
    EventState* state_;
};

}  // namespace kvx::detail
