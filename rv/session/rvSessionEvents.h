#pragma once

/// Timers, I/O and signals of a session. They run on the session's event manager, may close the
/// session, and end with it.
///
/// Every operation returns an event-manager code: 0, 2 for a null, dead or foreign id (also for an
/// invalid session), 5 for a null callback, 11 for a synchronous session.  Callbacks are called as
/// `callback(session, closure, kind, id)`. Loop thread only.

#include "platform/Export.h"
#include "rv/event/rvevm.h"
#include "rv/session/rv_Session.h"

/// One-shot; the id is invalid from the moment its callback is called.
KVX_API int rv_AddTimer(rv_Session session, rvevm_Id* id, unsigned long intervalMs,
                        rvevm_Callback callback, void* closure);
/// Returns 7 for an interval of 0.
KVX_API int rv_AddRepeatTimer(rv_Session session, rvevm_Id* id, unsigned long intervalMs,
                              rvevm_Callback callback, void* closure);
KVX_API int rv_RemoveTimer(rv_Session session, rvevm_Id id);
/// Counts `intervalMs` from now; a repeating timer keeps it. Returns 7 for a repeat of 0.
KVX_API int rv_ResetTimer(rv_Session session, rvevm_Id id, unsigned long intervalMs);

KVX_API int rv_AddIO(rv_Session session, rvevm_Id* id, unsigned int socket, rvevm_IoEventType type,
                     rvevm_Callback callback, void* closure);
KVX_API int rv_RemoveIO(rv_Session session, rvevm_Id id);

KVX_API int rv_AddSignal(rv_Session session, rvevm_Id* id, int signal, rvevm_Callback callback,
                         void* closure);
KVX_API int rv_RemoveSignal(rv_Session session, rvevm_Id id);
