#pragma once

#include <cstdint>

class RvEvent;

namespace kvx::detail {

/// What the core calls back with: the part of an event that survives it while a callback runs.
///
/// The event holds its state until it is destroyed, and a running dispatch holds it too. So whoever
/// has called user code looks at `event` before anything else: null says that the event has been
/// destroyed meanwhile. Event kinds derive their state from this one.
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

    /// Gives one holder up; the last one frees the state.
    static void drop(EventState* state) {
        if (--state->holders < 1) delete state;
    }

  private:
    EventState* state_;
};

}  // namespace kvx::detail
