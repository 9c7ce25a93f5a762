#pragma once

#include "rv/event/rvevm.h"

/// What the floors above need of the event manager beyond its public operations. Loop thread only.
namespace kvx::event {

/// What a callback is told about the kind of its event.
enum EventKind : int { kIoEvent = 1, kTimerEvent = 2, kSignalEvent = 3 };

/// Lets the I/O entry `id` be called in the next step whether or not its socket is ready, and that
/// step not wait. For an owner that has work left over from its last call. 2 for an invalid id.
int makeReady(rvevm_Manager manager, rvevm_Id id) noexcept;

/// True while the manager's main loop runs.
[[nodiscard]] bool isLooping(rvevm_Manager manager) noexcept;

/// The process-wide manager that asynchronous sessions share, created on first use; counts one use.
/// Null, with an event-manager code, on failure.
[[nodiscard]] rvevm_Manager acquireSharedManager(int& code) noexcept;

/// Gives one use back; the last one destroys the shared manager. Ignored for any other manager and
/// for one that `rvevm_Destroy` has ended meanwhile.
void releaseSharedManager(rvevm_Manager manager) noexcept;

}  // namespace kvx::event
