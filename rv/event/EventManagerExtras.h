#pragma once

#include "rv/event/rvevm.h"

/// Operations of the event manager for the rooms above, beyond the public ones. Loop thread only.
namespace kvx::event {

/// The `kind` argument of a callback.
enum EventKind : int { kIoEvent = 1, kTimerEvent = 2, kSignalEvent = 3 };

/// Calls the I/O entry `id` in the next step, without a wait, whether or not its socket is ready.
/// For an owner with work left over from its last call. Returns 2 for an invalid id.
int makeReady(rvevm_Manager manager, rvevm_Id id) noexcept;

/// True while the manager's main loop runs.
[[nodiscard]] bool isLooping(rvevm_Manager manager) noexcept;

/// True while the manager's main loop, which has been asked to stop, is still in a callback.
[[nodiscard]] bool isStopping(rvevm_Manager manager) noexcept;

/// The process-wide manager that asynchronous sessions share, created on first use; counts one use.
/// Null, with an event-manager code, on failure.
[[nodiscard]] rvevm_Manager acquireSharedManager(int& code) noexcept;

/// Releases one use; the last one destroys the shared manager. Ignored for any other manager and
/// for one that `rvevm_Destroy` has ended.
void releaseSharedManager(rvevm_Manager manager) noexcept;

}  // namespace kvx::event
