// The codes of the bus client. A code of a table without a row here does not compile.

#include "rv/error/rvCodeTexts.h"
#include "rv/ft/GroupCodes.h"
#include "tools/kvx/Explanations.h"

namespace kvx::tool::explaining {

namespace {

constexpr const char* kFine = "The operation has succeeded.";
constexpr const char* kNothing = "Nothing.";
constexpr const char* kNeverSent =
    "No call of this system returns it, and rvd sends no such refusal; another daemon's refusal is "
    "returned by rv_CreateSession as it came.";
constexpr const char* kAskDaemon = "Read the log of that daemon; use an rvd.";
constexpr const char* kBetterDescriptors =
    "Raise the limit of descriptors ('ulimit -n'), or close some.";

constexpr Reason kShared[] = {
    {session_code::kOk, kFine, kNothing},
    {session_code::kInitFailed,
     "rv_Open and rv_CreateSession: no socket or event manager could be made, most often for want "
     "of descriptors, or the daemon broke off the negotiation of the link. rv_RunOnce: another "
     "session runs the loop already.",
     "Run 'kvx doctor': it says whether the daemon completes the handshake. Check 'ulimit -n'. Run "
     "one loop at a time."},
    {session_code::kInvalidSession,
     "A call on a session that is null or was closed. A handle is never used again for another "
     "session.",
     "Open the session first, look at the result of the opening, and use nothing of it after "
     "rv_Close."},
    {session_code::kInvalidArgument,
     "A null subject, listener, callback or text; a payload that does not fit its type or any "
     "message (64 MiB); rv_Dispatch on an asynchronous session; an advisory without its fields. "
     "Message operations return it too, also for a conversion that does not exist.",
     "Look at the arguments of the call that returned it: its header says which it refuses."},
    {session_code::kVersionMismatch,
     "rv_CreateSession: what listens at the address speaks neither version 3 nor version 4 of the "
     "link. rv_Flavor: the flavour 0.",
     "Check with 'kvx doctor' that rvd listens at the address, of a version that fits this one."},
};
static_assert(explains(kShared, kSharedTexts));

constexpr Reason kSession[] = {
    {session_code::kServiceNotFound,
     "rv_CreateSession: the daemon refused the session's service, or its answer to the init "
     "message lacks the client's port. rvd sends it only for an init message without a service.",
     "Check with 'kvx doctor' that rvd is what listens at the address."},
    {session_code::kNetworkNotFound,
     "rv_CreateSession: the daemon refused the session's network, or its answer to the init "
     "message lacks the client's address. rvd sends it only for an init message without a network.",
     "Check with 'kvx doctor' that rvd is what listens at the address."},
    {session_code::kDaemonNotFound,
     "rv_CreateSession: the daemon's address is none (tcp:[host:]port or unix:/path), or its host "
     "has no address.",
     "Correct 'daemon' in $KVX_HOME/etc/Calvorine.rvd.cfg or the option --daemon, or the host's "
     "name in the resolver."},
    {session_code::kNoMemory,
     "Memory ran out; or rv_Send: the link's queue was full and refused the message, or the "
     "payload "
     "is null, or its size was left open and cannot be computed.",
     "When _RV.ERROR.SYSTEM.CLIENT.FASTPRODUCER came too, send more slowly or let the loop run in "
     "between. Else look at the payload, then at the memory of the process."},
    {session_code::kInvalidSubject,
     "The subject is empty, has an empty element or more than 500 bytes encoded; a listen is below "
     "_INBOX; a message was to go to a system advisory's subject (_RV.WARN.SYSTEM and the like); "
     "or "
     "the session has no name, since its daemon is '-'.",
     "Correct the subject. Give the session a daemon when it needs inboxes."},
    {session_code::kNotConnected,
     "rv_CreateSession: four attempts, two seconds apart, met no daemon. Later calls: the "
     "connection is lost; the session reconnects by itself and announces its listens again, but "
     "what was to be sent meanwhile was not.",
     "Run 'kvx doctor', start rvd where none runs, and send again after the return "
     "(RV_HOOK_RECONNECT)."},
    {session_code::kInvalidListener,
     "rv_Cancel: the id is null, was cancelled before, or is one of another session.",
     "Cancel each listener once, on the session that made it."},
    {session_code::kNoHostName, kNeverSent, kAskDaemon},
    {session_code::kNoHostAddress, kNeverSent, kAskDaemon},
    {session_code::kHostAddressUnknown, kNeverSent, kAskDaemon},
    {session_code::kNotPermitted,
     "The daemon allows certain networks or users only, and this process has none of them.",
     "Add its network or user to -allow or -allow-user of rvd."},
};
static_assert(explains(kSession, kSessionTexts));

constexpr Reason kMessage[] = {
    {message_code::kNotInitialized,
     "The bytes are no message: they do not begin with its length and its magic word, or an RvMsg "
     "has none, for want of memory.",
     "Call rvmsg_Init on the buffer first; check with rvmsg_Validate what came from elsewhere."},
    {message_code::kNoRoom,
     "The buffer is too small for the field, or an RvMsg would grow beyond 4 GiB.",
     "Give rvmsg_Append a larger buffer, or use RvMsg, which grows; split what is larger than a "
     "message."},
    {message_code::kInvalidName,
     "A field's name has more than 99 characters; a look-up is without a name or has an empty or "
     "too long element; an advisory's class has a full stop. rv_SendAppAdvisory: the source is "
     "SYSTEM, or the subject is invalid or a system advisory's.",
     "Shorten the name, or choose another source or subject."},
    {message_code::kInvalidData,
     "A field runs past the end of its message, does not fit its type or is nested more than 32 "
     "levels deep; a data message would exceed 64 MiB.",
     "Check with rvmsg_Validate what came from elsewhere; find out who sent it by its subject."},
    {message_code::kNotFound, "The message has no field of that name, or none at that path.",
     "Print the message ('kvx listen', rvmsg_PrintMsg) and compare the names; treat the field as "
     "optional."},
};
static_assert(explains(kMessage, kMessageTexts));

constexpr Reason kEvent[] = {
    {event_code::kOk, kFine, kNothing},
    {event_code::kInitFailed, "A timer queue failed in a way that has no code of its own.",
     "Report it: no known path leads here."},
    {event_code::kInvalidId,
     "The id is null, dead, of another kind or of another manager; a one-shot timer's id is dead "
     "from the moment its callback begins. Also a null pointer for a new id.",
     "Forget an id when its event was removed or has fired for the last time."},
    {event_code::kInvalidSource,
     "rvevm_AddIO: the descriptor is no open socket, or is watched for this condition already.",
     "Watch sockets only, each once for each condition, and remove them before they are closed."},
    {event_code::kInvalidCondition,
     "rvevm_AddIO: the condition is not one of RVEVM_READ, RVEVM_WRITE and RVEVM_EXCEPTION.",
     "Register once for each condition; they cannot be combined."},
    {event_code::kInvalidCallback, "The callback is null.", "Give a callback."},
    {event_code::kInvalidSignal,
     "rvevm_AddSignal: the number is not one from 0 to 23, or is in use already.",
     "Register each signal once."},
    {event_code::kInvalidInterval, "A repeating timer with an interval of 0.",
     "Give at least one millisecond; use a one-shot timer for 0."},
    {event_code::kResourcesExceeded,
     "Memory ran out, or a manager watches 1,024 sockets for one condition.",
     "Remove what is not used any more; divide the sockets over several managers."},
    {event_code::kNotSupported,
     "rvevm_Create: there is no descriptor for the wake-up. rvevm_AddSignal: another manager of "
     "the process owns the signals, or the system refuses to handle this one.",
     "Raise 'ulimit -n'; register all signals with one manager."},
    {event_code::kNotInitialized,
     "The manager is null, destroyed or ending, or its loop is running already.",
     "Create it first, and run one loop at a time."},
    {event_code::kSynchronous,
     "Timers, sockets, signals and loops of a session that was made without a manager.",
     "Use rv_Dispatch on a synchronous session, or open one by rv_Open."},
};
static_assert(explains(kEvent, kEventTexts));

constexpr Reason kQueue[] = {
    {queue_code::kOk, kFine, kNothing},
    {queue_code::kNoMemory,
     "The link to the daemon had no memory for a message. rv_Send returns 20; while receiving, the "
     "connection ends and is made anew.",
     "Look at the memory of the process and its limit."},
    {queue_code::kBadLimit,
     "In the negotiation the daemon wanted segments of another size than 64 MiB, or a limit above "
     "it. rv_CreateSession returns 1.",
     "Check with 'kvx doctor' that rvd is what listens at the address."},
    {queue_code::kLimitExceeded,
     "64 MiB wait in the link to the daemon and the message was refused (rv_Send returns 20), or, "
     "on a link of version 3, 2,000 messages wait and an older one was dropped. "
     "_RV.ERROR.SYSTEM.CLIENT.FASTPRODUCER says so.",
     "Send more slowly, or let the loop run in between: it writes the queue."},
    {queue_code::kNothingToRead, "The link has no whole message yet, and waits.", kNothing},
    {queue_code::kTooLarge,
     "No operation returns it: the size of a message is checked when it is made (rv_Send returns "
     "3).",
     "Keep messages below 64 MiB."},
    {queue_code::kEventFailure,
     "The event manager refused to watch the link's socket, or a timer for it. The connection "
     "ends.",
     "See the event-manager codes, 8 above all: 1,024 sockets, or memory."},
    {queue_code::kPeerGone,
     "The daemon has closed the connection, or it broke, or the daemon stopped reading. The "
     "session reconnects; meanwhile calls return 22.",
     "Look at the daemon's log: it may have closed the session, and says why. Run 'kvx doctor'."},
    {queue_code::kWrongType,
     "In the negotiation the daemon proposed a queue of another type than 2. rv_CreateSession "
     "returns 1.",
     "Check with 'kvx doctor' that rvd is what listens at the address."},
};
static_assert(explains(kQueue, kQueueTexts));

// All numbers of platform/Socket.h, also those that have no text.
constexpr Reason kSocket[] = {
    {platform::socket_error::kInterrupted, "A signal interrupted a wait; waits are repeated.",
     kNothing},
    {platform::socket_error::kBadDescriptor, "The descriptor is closed.",
     "Remove a socket from the loop before it is closed."},
    {platform::socket_error::kAccessDenied,
     "The system forbids it: a port below 1024, a rule of a firewall, or the mode of a unix socket "
     "or "
     "of a directory above it.",
     "Take another port, or allow it."},
    {platform::socket_error::kBadAddress, "An address outside the process was given to the system.",
     "Report it: no known path leads here."},
    {platform::socket_error::kInvalidArgument, "The system refused an argument.",
     "Report it: no known path leads here."},
    {platform::socket_error::kTooManyDescriptors,
     "The process, or the machine, has no descriptor left.", kBetterDescriptors},
    {platform::socket_error::kWouldBlock, "The operation has to wait; the library does so.",
     kNothing},
    {platform::socket_error::kInProgress, "A connect is under way; the library waits for it.",
     kNothing},
    {platform::socket_error::kAlready, "A connect was under way already.",
     "Wait for the first one."},
    {platform::socket_error::kNotASocket, "The descriptor is closed, or no socket.",
     "Remove a socket from the loop before it is closed."},
    {platform::socket_error::kDestinationRequired, "A socket that is not connected was written to.",
     "Connect it first."},
    {platform::socket_error::kMessageTooLong, "A datagram is too long; the bus sends none.",
     "Use a stream."},
    {platform::socket_error::kNotSupported, "This kind of socket cannot do it.",
     "Use a stream socket of IPv4."},
    {platform::socket_error::kFamilyNotSupported, "The address is not one of IPv4.",
     "Use an IPv4 address; the bus has no other."},
    {platform::socket_error::kAddressInUse, "Another process listens at that port.",
     "Find it ('ss -ltnp'), or choose another port. 'kvx doctor' says whether it is an rvd."},
    {platform::socket_error::kAddressNotAvailable,
     "The address is none of this host, or no port is free for an outgoing connection.",
     "Correct the address, or close connections."},
    {platform::socket_error::kNetworkDown, "The network interface is down.",
     "Bring the interface up."},
    {platform::socket_error::kNetworkUnreachable, "There is no route to that network.",
     "Look at the routes ('ip route') and the daemon's address."},
    {platform::socket_error::kConnectionAborted, "The connection was given up before its time.",
     "It is made anew; look at the other end's log."},
    {platform::socket_error::kConnectionReset,
     "The other end has closed the connection while something was sent.",
     "The session reconnects; look at the daemon's log."},
    {platform::socket_error::kNoBuffers, "The system has no memory for the socket.",
     "Look at the machine's memory and the limits of its sockets."},
    {platform::socket_error::kAlreadyConnected, "The socket is connected already.",
     "Connect a socket once."},
    {platform::socket_error::kNotConnected, "The socket is not connected.", "Connect it first."},
    {platform::socket_error::kShutDown, "This direction of the socket was closed.",
     "Use a new connection."},
    {platform::socket_error::kTimedOut,
     "Nobody answered the connect: the host is off, or a firewall drops the packets. rv_Flush: "
     "something still waits when its time is over.",
     "Check the address, the host and the firewall; give rv_Flush more time."},
    {platform::socket_error::kRefused, "The host is there, but nobody listens at that port.",
     "Start rvd, or correct the port in 'daemon'."},
    {platform::socket_error::kHostDown, "The host does not answer.", "Look whether it is on."},
    {platform::socket_error::kHostUnreachable, "There is no way to the host.",
     "Look at the routes and at the firewall between."},
    {10093, "Only Windows has it; nothing of this system returns it.", kNothing},
};

constexpr Reason kGroup[] = {
    {ft::kOk, kFine, kNothing},
    {ft::kBadArgument,
     "rvft_Join: the group's name is null or empty, the id or action null, the goal or heartbeat "
     "interval 0, or the activation interval not longer than the heartbeat's or shorter than the "
     "preparation's.",
     "Correct the argument; engines use 1,500 ms and 4,800 ms."},
    {ft::kBadSession, "rvft_Join: the session is null or closed.", "Join on an open session."},
    {ft::kNoMemory, "rvft_Join: memory ran out; the session is no member.",
     "Look at the memory of the process, and join again."},
    {ft::kAlreadyMember, "rvft_Join: this session is a member of the group already.",
     "Leave first, or join on another session."},
    {ft::kNoMember,
     "rvft_Leave: the id is not one of a current member: it has left, or its session is closed.",
     "Leave once, before the session is closed."},
    {ft::kCannotAnnounce,
     "rvft_Join: the group's name does not fit a subject, or the session can neither listen nor "
     "have timers, as one without a manager or without a daemon.",
     "Shorten the name; join on an asynchronous session that has a daemon."},
};
static_assert(explains(kGroup, ft::kFtTexts));

const CodeText* textRow(int code) {
    for (const auto& row : kSocketTexts) {
        if (row.code == code) return &row;
    }
    return nullptr;
}

}  // namespace

void addBusCodes(Explanations& all) {
    add(all, "session code", kShared, kSharedTexts);
    add(all, "session code", kSession, kSessionTexts);
    add(all, "message code", kMessage, kMessageTexts);
    add(all, "event-manager code", kEvent, kEventTexts);
    add(all, "queue code", kQueue, kQueueTexts);
    add(all, "group code", kGroup, ft::kFtTexts);
    for (const Reason& reason : kSocket) {
        const CodeText* const row = textRow(reason.code);
        all.push_back({"socket error", std::to_string(reason.code), row != nullptr ? row->name : "",
                       row != nullptr ? row->text : "", reason.why, reason.mend});
    }
}

}  // namespace kvx::tool::explaining
