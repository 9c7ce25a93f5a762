#pragma once

/// Hooks into a session for the layers above it, and its name.

#include "platform/Export.h"
#include "rv/session/rv_Session.h"

enum rv_HookList {
    RV_HOOK_PUBLISH = 0,     ///< before a data message is published; nonzero: not sent, the result
    RV_HOOK_DELIVER = 1,     ///< before delivery to listeners; nonzero: the message is dropped
    RV_HOOK_LISTEN = 2,      ///< before a listen message is sent; nonzero: it is not sent
    RV_HOOK_DISCONNECT = 3,  ///< the connection has been lost
    RV_HOOK_RECONNECT = 4,   ///< the connection is restored and every listen announced
    RV_HOOK_CLOSE = 5,       ///< closing starts; the session is open and can still send
    RV_HOOK_RELEASE = 6,     ///< the session is about to be freed; no operation works any more
};

/// `message` is the message buffer for lists 0 to 2 (do not keep or change it), null otherwise. The
/// result counts for lists 0 to 2 only.
using rv_Hook = int (*)(rv_Session session, const void* message, void* closure);

/// Adds a hook at the end of a list. Returns 3 for an unknown list or a null hook.
KVX_API int rv_AddHook(rv_Session session, rv_HookList list, rv_Hook hook, void* closure);

/// Removes the first equal pair; a hook may remove itself and others. Returns 3 when there is none.
KVX_API int rv_RemoveHook(rv_Session session, rv_HookList list, rv_Hook hook, void* closure);

/// The session's name, "" until the first handshake is complete and for an invalid session. Valid
/// until the next reconnect or the close.
KVX_API const char* rv_SessionName(rv_Session session);

/// True while the session has a daemon connection.
KVX_API bool rv_IsConnected(rv_Session session);

/// True from the creation of a session until `rv_Close` has run its close hooks.
KVX_API bool rv_IsOpen(rv_Session session);
