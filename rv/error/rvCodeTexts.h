#pragma once

#include "platform/Socket.h"
#include "rv/error/rvCodes.h"

/// The tables of the bus's codes, each in the order of its codes: what `rvErrors.h` looks up. The
/// texts are fixed; programs read them, and people search for them.
namespace kvx {

struct CodeText {
    int code;
    const char* name;  ///< of the constant; "" when there is none
    const char* text;
};

// The session codes that every category shares.
inline constexpr CodeText kSharedTexts[] = {
    {session_code::kOk, "kOk", "No error"},
    {session_code::kInitFailed, "kInitFailed", "Initialization failed"},
    {session_code::kInvalidSession, "kInvalidSession", "An invalid session handle was encountered"},
    {session_code::kInvalidArgument, "kInvalidArgument", "An invalid argument was encountered"},
    {session_code::kVersionMismatch, "kVersionMismatch", "A version mismatch was encountered"},
};

inline constexpr CodeText kSessionTexts[] = {
    {session_code::kServiceNotFound, "kServiceNotFound", "Requested service was not found"},
    {session_code::kNetworkNotFound, "kNetworkNotFound", "Requested network was not found"},
    {session_code::kDaemonNotFound, "kDaemonNotFound", "Requested daemon was not found"},
    {session_code::kNoMemory, "kNoMemory", "Unable to allocate enough memory"},
    {session_code::kInvalidSubject, "kInvalidSubject", "The specified subject is not valid"},
    {session_code::kNotConnected, "kNotConnected", "The daemon is not connected"},
    {session_code::kInvalidListener, "kInvalidListener", "The listen identifier is invalid"},
    {session_code::kNoHostName, "kNoHostName",
     "Unable to determine this host's name (gethostname failed.)"},
    {session_code::kNoHostAddress, "kNoHostAddress",
     "Unable to determine this host's IP address (gethostbyname failed)."},
    {session_code::kHostAddressUnknown, "kHostAddressUnknown",
     "Unable to determine this host's IP address."},
    {session_code::kNotPermitted, "kNotPermitted", "The operation was not permitted."},
};

inline constexpr CodeText kMessageTexts[] = {
    {message_code::kNotInitialized, "kNotInitialized", "Message buffer not initialized"},
    {message_code::kNoRoom, "kNoRoom", "Insufficient memory for the operation"},
    {message_code::kInvalidName, "kInvalidName", "The name provided is not valid"},
    {message_code::kInvalidData, "kInvalidData", "The data provided is invalid"},
    {message_code::kNotFound, "kNotFound", "The specified field was not found"},
};

inline constexpr CodeText kEventTexts[] = {
    {event_code::kOk, "kOk", "No error"},
    {event_code::kInitFailed, "kInitFailed", "Initialization failed"},
    {event_code::kInvalidId, "kInvalidId", "An event id was invalid"},
    {event_code::kInvalidSource, "kInvalidSource",
     "A source for an I/O event was not a valid file descriptor"},
    {event_code::kInvalidCondition, "kInvalidCondition",
     "The condition for an I/O event was not valid"},
    {event_code::kInvalidCallback, "kInvalidCallback", "The callback procedure was not valid"},
    {event_code::kInvalidSignal, "kInvalidSignal", "The signal for a signal event was not valid"},
    {event_code::kInvalidInterval, "kInvalidInterval",
     "The interval for a timer event was not valid"},
    {event_code::kResourcesExceeded, "kResourcesExceeded", "Resources exceeded"},
    {event_code::kNotSupported, "kNotSupported",
     "The underlying operating system cannot support the operation"},
    {event_code::kNotInitialized, "kNotInitialized",
     "The event manager was not properly initialized"},
    {event_code::kSynchronous, "kSynchronous",
     "The session is synchronous and does not support events"},
};

inline constexpr CodeText kQueueTexts[] = {
    {queue_code::kOk, "kOk", "No error"},
    {queue_code::kNoMemory, "kNoMemory", "Insufficient memory for operation"},
    {queue_code::kBadLimit, "kBadLimit",
     "The queue segment size doesn't agree with the peer or is too large or too small for the "
     "system to handle."},
    {queue_code::kLimitExceeded, "kLimitExceeded", "Pre-set buffering limit exceeded."},
    {queue_code::kNothingToRead, "kNothingToRead",
     "There are no entries in the queue. Is the publisher running?"},
    {queue_code::kTooLarge, "kTooLarge",
     "The block passed to ipqEnqueue is too large for the queue."},
    {queue_code::kEventFailure, "kEventFailure", "An RVEVM operation failed for some reason."},
    {queue_code::kPeerGone, "kPeerGone",
     "The peer process (other end of the queue) is no longer alive."},
    {queue_code::kWrongType, "kWrongType",
     "The queue transport layer does not support the requested queue type."},
};

// Of the numbers of platform/Socket.h these have a text, and so has one that only Windows knows.
inline constexpr CodeText kSocketTexts[] = {
    {platform::socket_error::kInterrupted, "kInterrupted", "The blocking call was cancelled"},
    {platform::socket_error::kBadAddress, "kBadAddress", "Argument is too small"},
    {platform::socket_error::kInvalidArgument, "kInvalidArgument", "Invalid parameter"},
    {platform::socket_error::kTooManyDescriptors, "kTooManyDescriptors",
     "No more file descriptors are available"},
    {platform::socket_error::kWouldBlock, "kWouldBlock",
     "The socket is marked as non-blocking and the connection can not be completed now."},
    {platform::socket_error::kInProgress, "kInProgress",
     "A blocking Windows Sockets call is in progress"},
    {platform::socket_error::kNotASocket, "kNotASocket", "The descriptor is not a socket"},
    {platform::socket_error::kDestinationRequired, "kDestinationRequired",
     "A destination address is required"},
    {platform::socket_error::kNotSupported, "kNotSupported",
     "The operation is not supported on this socket."},
    {platform::socket_error::kFamilyNotSupported, "kFamilyNotSupported",
     "The specified address family is not supported by this protocol"},
    {platform::socket_error::kAddressInUse, "kAddressInUse", "Specified address is in use"},
    {platform::socket_error::kAddressNotAvailable, "kAddressNotAvailable",
     "The specified address is not available from the local machine"},
    {platform::socket_error::kNetworkDown, "kNetworkDown", "Network subsystem is down"},
    {platform::socket_error::kNetworkUnreachable, "kNetworkUnreachable",
     "The network can't be reached from this host at this time"},
    {platform::socket_error::kNoBuffers, "kNoBuffers",
     "Not enough buffers available, too many connections"},
    {platform::socket_error::kAlreadyConnected, "kAlreadyConnected",
     "The socket is already connected"},
    {platform::socket_error::kTimedOut, "kTimedOut",
     "Attempt to connect timed out without establishing a connection"},
    {platform::socket_error::kRefused, "kRefused",
     "The attempt to connect was forcefully rejected"},
    {10093, "", "WINSOCK has not been initialized"},
};

}  // namespace kvx
