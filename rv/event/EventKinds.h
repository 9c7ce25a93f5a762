#pragma once

#include <cstddef>

#include "platform/Clock.h"

/// The numbers of the event manager.
namespace kvx::event {

/// What a callback is told about the kind of its event.
enum EventKind : int { kIoEvent = 1, kTimerEvent = 2, kSignalEvent = 3 };

inline constexpr std::size_t kInitialTimers = 16;  ///< places in the manager's own timer queue
inline constexpr std::size_t kMaxWatched = 1'024;  ///< I/O entries of one condition
inline constexpr int kSignalSlots = 24;            ///< signals 0 to 23 can be registered
inline constexpr int kDispatchedSignals = 23;      ///< signals 0 to 22 are dispatched
inline constexpr platform::Milliseconds kIdleSleep = 1'000;  ///< a step with nothing to wait for

}  // namespace kvx::event
