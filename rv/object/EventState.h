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
    RvEvent* event;
    std::int32_t holders = 1;
};

/// Holds a state for the length of a dispatch.
template <class State>
class StateHold {
  public:
    explicit StateHold(State& state) : state_(&state) { ++state.holders; }
    StateHold(const StateHold&) = delete;
    StateHold& operator=(const StateHold&) = delete;
    ~StateHold() { drop(state_); }

    /// Gives one holder up; the last one frees the state.
    static void drop(State* state) {
        if (--state->holders < 1) delete state;
    }

  private:
    State* state_;
};

}  // namespace kvx::detail
