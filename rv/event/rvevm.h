#pragma once

#include "platform/Export.h"

/// The event manager: the single-threaded dispatcher of timers, socket readiness and signals that
/// asynchronous sessions run on.
///
/// Every operation returns an event-manager code, 0 on success; `rvevm_ErrorText` has the texts. A
/// null, destroyed or dying manager gives 10 unless another code is stated. Loop thread only,
/// except `rvevm_Stop`. Callbacks may add and remove anything, stop the loop and destroy the
/// manager.
///
/// Handles and ids are tokens that are never reused: a dead id, an id of another kind and an id of
/// another manager give 2 and change nothing.

using rvevm_Manager = struct rvevm_Manager_*;
using rvevm_Id = void*;

/// The condition of an I/O event. No other value is accepted.
enum rvevm_IoEventType : int { RVEVM_READ = 1, RVEVM_WRITE = 2, RVEVM_EXCEPTION = 4 };

/// `owner` is the manager (or whoever owns the timer queue), `kind` 1 for I/O, 2 for a timer, 3 for
/// a signal, `entry` the id of what fired.
using rvevm_Callback = void (*)(void* owner, void* closure, int kind, void* entry);

/// Makes a manager; the caller owns it and ends it with `rvevm_Destroy`. 2 for a null pointer, 8
/// without memory, 9 without a descriptor for the wake-up.
KVX_API int rvevm_Create(rvevm_Manager*);

/// Removes all registrations, restores the default handling of its signals and frees the manager.
/// Inside its own main loop it stops the loop, no further callback runs, and the manager is freed
/// when the loop returns.
KVX_API int rvevm_Destroy(rvevm_Manager);

/// Dispatches until `rvevm_Stop`. 10 for no manager or when its loop is already running.
KVX_API int rvevm_MainLoop(rvevm_Manager);

/// Ends the loop after the current callback; a sleeping or waiting loop ends at once. No effect on
/// a loop that has not begun. Any thread; safe in a signal handler.
KVX_API int rvevm_Stop(rvevm_Manager);

/// Calls `callback` whenever `socket` fulfils the condition. The caller owns the socket, which must
/// be removed before it is closed. 2 for a null id pointer, 5 for a null callback, 3 for what is
/// not a socket or is registered for this condition already, 4 for another condition, 8 when the
/// condition has 1,024 entries or memory runs out.
KVX_API int rvevm_AddIO(rvevm_Manager, rvevm_Id*, unsigned int socket, rvevm_IoEventType,
                        rvevm_Callback, void* closure);

/// An entry that is due in the current step is not called any more.
KVX_API int rvevm_RemoveIO(rvevm_Manager, rvevm_Id);

/// Calls `callback` once, `intervalMs` from now. Its id is invalid from the moment the callback
/// begins. 2 for a null id pointer, 5 for a null callback, 8 without memory.
KVX_API int rvevm_AddTimer(rvevm_Manager, rvevm_Id*, unsigned long intervalMs, rvevm_Callback,
                           void* closure);

/// Calls `callback` every `intervalMs`, counted from the run that called it last. 7 for an interval
/// of 0, otherwise as `rvevm_AddTimer`.
KVX_API int rvevm_AddRepeatTimer(rvevm_Manager, rvevm_Id*, unsigned long intervalMs, rvevm_Callback,
                                 void* closure);

KVX_API int rvevm_RemoveTimer(rvevm_Manager, rvevm_Id);

/// Restarts the timer to fire `intervalMs` from now; a repeating timer adopts the interval (7 for
/// 0).
KVX_API int rvevm_ResetTimer(rvevm_Manager, rvevm_Id, unsigned long intervalMs);

/// Calls `callback` from the loop after the process has caught `signal` (the system's number). One
/// manager at a time owns the process's signals. 2 for a null id pointer, 6 for a number outside 0
/// to 23 or in use, 5 for a null callback, 9 when another manager owns signals or the system
/// refuses the handler, 8 without memory. 23 can be registered but is never dispatched.
KVX_API int rvevm_AddSignal(rvevm_Manager, rvevm_Id*, int signal, rvevm_Callback, void* closure);

/// Restores the system's default handling of the signal.
KVX_API int rvevm_RemoveSignal(rvevm_Manager, rvevm_Id);
