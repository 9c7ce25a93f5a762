#pragma once

/// The core session: one connection of this process to the bus daemon.
///
/// Unless an operation says otherwise it returns a session code (`rv_ErrorText`), 0 for success,
/// and 2 when the session handle is null or closed. A session is closed once `rv_Close` has run its
/// close hooks; in them only a second `rv_Close` returns 2. A handle is a token that is never
/// reused. Use a session only on the thread that runs its event loop; nothing here is locked.
/// Subjects are dotted texts; texts, data and subjects given to an operation are copied and need to
/// live only during the call.

#include <cstdint>

#include "platform/Export.h"
#include "rv/event/rvevm.h"
#include "rv/link/ipqProperties.h"
#include "rv/message/rvmsg.h"

using rv_Session = struct rv_Session_*;
using rv_Listener = struct rv_Listener_*;

enum rv_Boolean { rv_FALSE = 0, rv_TRUE = 1 };

namespace kvx {

/// The flavour that this system's processes announce to the daemon.
inline constexpr int flavourId = 53;
inline constexpr const char flavourName[] = "KVX";

}  // namespace kvx

/// Called for each message on a listened subject, on the session's thread. `reply` is null when the
/// message carries none; `data` is null and `size` 0 for a message without payload (type 22). All
/// arguments are valid only during the call. The callback may send, listen, cancel (itself
/// included) and close the session.
using rv_DataCallback = void (*)(rv_Session session, const char* subject, const char* reply,
                                 rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, void* closure);

/// Sets the flavour that sessions created later announce. Texts may be null. Returns 4 for id 0 and
/// 20 without memory; the flavour is then unchanged. Any thread.
KVX_API int rv_Flavor(int id, const char* name, const char* ticket, int key, int flags);

/// Opens an asynchronous session on the event manager that the process shares; the first open
/// creates the manager, the last close destroys it. Arguments and further codes as for
/// `rv_CreateSession`; 1 when the manager cannot be made.
KVX_API int rv_Open(rv_Session* session, const char* service, const char* network,
                    const char* daemon);

/// Creates a session on `manager`, which should outlive it (otherwise its callbacks stop), or a
/// synchronous one when `manager` is null. `daemon` is "tcp:[host:]port" or "unix:/path", null or
/// "" for "tcp:7500", or "-" for no daemon at all. A local daemon that does not answer is started.
/// Blocks while connecting, up to four attempts. Returns 3 for a null `session`, 18 for a daemon
/// text that cannot be used, 22 when the daemon cannot be reached, 4 when it speaks another
/// version, 16 or 17 when it refuses service or network, 27 when it
/// does not allow this user or network address, 20 without memory, 1 otherwise. `*session`
/// is null after a failure.
KVX_API int rv_CreateSession(rv_Session* session, rvevm_Manager manager, const char* service,
                             const char* network, const char* daemon);

/// Closes the session: sends what is queued, ends every listen, timer, I/O and signal registration,
/// and invalidates the handle. Inside the session's own loop, timers or delivery it is freed when
/// those return, and no further callback of the session is called. Ends a loop that `rv_RunOnce` of
/// this session runs. Waits at most 5 s for the peer to close its end.
KVX_API int rv_Close(rv_Session session);

/// Runs the event loop of the session's manager until it is stopped. Returns 0 at once when the
/// session is synchronous or already inside this call, 1 when another session runs the loop.
KVX_API int rv_RunOnce(rv_Session session);

/// Ends the loop that `rv_RunOnce` runs on the session's manager, after the current step. Returns
/// 11 (an event-manager code) for a synchronous session.
KVX_API int rv_StopLoop(rv_Session session);

/// Listens on `subject`, wildcards included; `*listener` is the id for `rv_Cancel`. The callback is
/// not called before this has returned. Returns 3 for a
/// null subject, listener or callback, 21 for an invalid subject, one below "_INBOX", or a session
/// that never had a name, 20 without memory. When `*listener` is set although the result is not 0
/// (the connection broke, or a limit refused to announce it), the listen exists and is announced at
/// the next connect, unless it is cancelled.
KVX_API int rv_Listen(rv_Session session, rv_Listener* listener, const char* subject,
                      rv_DataCallback callback, void* closure);

/// Makes a new inbox and listens on it. `nameOut`, when given, receives its dotted text. Returns 3
/// when `capacity` is too small for it, else as `rv_Listen`.
KVX_API int rv_CreateInbox(rv_Session session, rv_Listener* listener, char* nameOut,
                           unsigned capacity, rv_DataCallback callback, void* closure);

/// Ends a listen or an inbox; its callback is not called any more, not even for the current
/// message. Returns 23 for an id that is null, cancelled or of another session.
KVX_API int rv_Cancel(rv_Session session, rv_Listener listener);

/// Publishes one payload. `reply` may be null. `data` may be null with type 22 only; a `size` of 0
/// is computed for messages, texts and sealed blocks. Returns 3 for a null subject, 21 for an
/// invalid or reserved one, 22 without a connection or when it breaks, 3 for a payload that does
/// not fit its type or any message (64 MiB), 20 for null data and for a size of 0 that cannot be
/// computed, without memory, or when a limit refused the message. A wildcard subject that covers
/// the system's advisories ("_RV.>") is sent, but `rvd` drops the message.
KVX_API int rv_Send(rv_Session session, const char* subject, const char* reply, rvmsg_Type type,
                    rvmsg_Size size, rvmsg_Data data);

/// Makes an inbox for the answers and publishes with it as the reply subject. After a failure there
/// is no inbox and `*listener` is null.
KVX_API int rv_SendRequest(rv_Session session, rv_Listener* listener, const char* subject,
                           rvmsg_Type type, rvmsg_Size size, rvmsg_Data data,
                           rv_DataCallback callback, void* closure);

/// Delivers a message to this session's own listeners, without the daemon: before it returns or,
/// inside a delivery, after that one.
KVX_API int rv_Deliver(rv_Session session, const char* subject, const char* reply, rvmsg_Type type,
                       rvmsg_Size size, rvmsg_Data data);

/// Synchronous sessions only: waits up to `timeoutMs` for a message and delivers it. Returns 0 also
/// at the time-out, 3 for an asynchronous session, 22 without a connection or when it breaks. The
/// link's keepalives are sent from here: a session that publishes nothing for ten minutes and is
/// not in this call meanwhile is closed by the daemon.
KVX_API int rv_Dispatch(rv_Session session, unsigned long timeoutMs);

/// Starts `program -listen daemonText` as a detached process. True when it was started; it may not
/// be ready.
KVX_API bool rv_StartDaemon(const char* program, const char* daemonText);

/// How many daemons the sessions of this process have started, because none answered on this host.
/// None while the environment has KVX_START_DAEMON=0. Any thread.
KVX_API unsigned rv_DaemonsStarted();

/// What the calling thread's last connect tried: each attempt and why it failed, and what came of
/// starting a daemon: "attempt 1: Connection refused; started /usr/bin/rvd; attempts 2 to 4: ...".
/// "" before any. Never null; valid until the thread connects again or asks again.
KVX_API const char* rv_ConnectReport();

/// Sets a session property; `record` is copied. A null session sets it for sessions created later
/// (any thread). The only property is "ipqProperties" (an `ipq_Properties`); it applies to the
/// current connection and later ones. Returns 3 for an unknown name or a null record.
KVX_API int rv_SetProperty(rv_Session session, const char* name, const void* record);

/// Writes the connection's queue. Returns 0 when all of it is written to the socket, 22 without a
/// connection or when it breaks, 10060 (the socket error number of a time-out) when `timeoutMs`
/// passed first; the rest stays queued.
KVX_API int rv_Flush(rv_Session session, unsigned long timeoutMs);

/// The size of the connection's queue; zeros without a connection. Either pointer may be null.
KVX_API int rv_Pending(rv_Session session, unsigned long* messages, unsigned long* bytes);

/// The manager the session runs on; null for a synchronous or invalid session.
KVX_API rvevm_Manager rv_EventManager(rv_Session session);

/// Publishes an advisory body (`rv_BuildAdvisory`) as a nested message, on `subject` or, when that
/// is null, on the subject made from its fields. Returns 3 when a field is missing; 0 without
/// sending when the body is not a message.
KVX_API int rv_SendAdvisory(rv_Session session, const char* subject, const void* body);

/// The same for applications: 9 for the source "SYSTEM" and for a subject that is invalid or of a
/// system advisory.
KVX_API int rv_SendAppAdvisory(rv_Session session, const char* subject, const void* body);

/// Traces what the bus library drops to standard error while `*level` is 1 or above. `level` must
/// stay valid; null (the default) disables traces. Any thread.
KVX_API void rv_SetTraceLevel(const int* level);
