// The five code tables and the socket table, each as (code, text) rows in the order of the codes. A
// lookup is a linear search: the tables are short, and texts are needed on failures only.

#include "rv/error/rvErrors.h"

#include <span>

#include "rv/error/rvCodes.h"

namespace {

struct CodeText {
    int code;
    const char* text;
};

// The session codes that every category shares.
constexpr CodeText kSharedTexts[] = {
    {kvx::session_code::kOk, "No error"},
    {kvx::session_code::kInitFailed, "Initialization failed"},
    {kvx::session_code::kInvalidSession, "An invalid session handle was encountered"},
    {kvx::session_code::kInvalidArgument, "An invalid argument was encountered"},
    {kvx::session_code::kVersionMismatch, "A version mismatch was encountered"},
};

constexpr CodeText kSessionTexts[] = {
    {kvx::session_code::kServiceNotFound, "Requested service was not found"},
    {kvx::session_code::kNetworkNotFound, "Requested network was not found"},
    {kvx::session_code::kDaemonNotFound, "Requested daemon was not found"},
    {kvx::session_code::kNoMemory, "Unable to allocate enough memory"},
    {kvx::session_code::kInvalidSubject, "The specified subject is not valid"},
    {kvx::session_code::kNotConnected, "The daemon is not connected"},
    {kvx::session_code::kInvalidListener, "The listen identifier is invalid"},
    {kvx::session_code::kNoHostName, "Unable to determine this host's name (gethostname failed.)"},
    {kvx::session_code::kNoHostAddress,
     "Unable to determine this host's IP address (gethostbyname failed)."},
    {kvx::session_code::kHostAddressUnknown, "Unable to determine this host's IP address."},
    {kvx::session_code::kNotPermitted, "The operation was not permitted."},
};

constexpr CodeText kMessageTexts[] = {
    {kvx::message_code::kNotInitialized, "Message buffer not initialized"},
    {kvx::message_code::kNoRoom, "Insufficient memory for the operation"},
    {kvx::message_code::kInvalidName, "The name provided is not valid"},
    {kvx::message_code::kInvalidData, "The data provided is invalid"},
    {kvx::message_code::kNotFound, "The specified field was not found"},
};

constexpr CodeText kEventTexts[] = {
    {kvx::event_code::kOk, "No error"},
    {kvx::event_code::kInitFailed, "Initialization failed"},
    {kvx::event_code::kInvalidId, "An event id was invalid"},
    {kvx::event_code::kInvalidSource, "A source for an I/O event was not a valid file descriptor"},
    {kvx::event_code::kInvalidCondition, "The condition for an I/O event was not valid"},
    {kvx::event_code::kInvalidCallback, "The callback procedure was not valid"},
    {kvx::event_code::kInvalidSignal, "The signal for a signal event was not valid"},
    {kvx::event_code::kInvalidInterval, "The interval for a timer event was not valid"},
    {kvx::event_code::kResourcesExceeded, "Resources exceeded"},
    {kvx::event_code::kNotSupported,
     "The underlying operating system cannot support the operation"},
    {kvx::event_code::kNotInitialized, "The event manager was not properly initialized"},
    {kvx::event_code::kSynchronous, "The session is synchronous and does not support events"},
};

constexpr CodeText kQueueTexts[] = {
    {kvx::queue_code::kOk, "No error"},
    {kvx::queue_code::kNoMemory, "Insufficient memory for operation"},
    {kvx::queue_code::kBadLimit,
     "The queue segment size doesn't agree with the peer or is too large or too small for the "
     "system to handle."},
    {kvx::queue_code::kLimitExceeded, "Pre-set buffering limit exceeded."},
    {kvx::queue_code::kNothingToRead,
     "There are no entries in the queue. Is the publisher running?"},
    {kvx::queue_code::kTooLarge, "The block passed to ipqEnqueue is too large for the queue."},
    {kvx::queue_code::kEventFailure, "An RVEVM operation failed for some reason."},
    {kvx::queue_code::kPeerGone, "The peer process (other end of the queue) is no longer alive."},
    {kvx::queue_code::kWrongType,
     "The queue transport layer does not support the requested queue type."},
};

constexpr CodeText kSocketTexts[] = {
    {10004, "The blocking call was cancelled"},
    {10014, "Argument is too small"},
    {10022, "Invalid parameter"},
    {10024, "No more file descriptors are available"},
    {10035, "The socket is marked as non-blocking and the connection can not be completed now."},
    {10036, "A blocking Windows Sockets call is in progress"},
    {10038, "The descriptor is not a socket"},
    {10039, "A destination address is required"},
    {10045, "The operation is not supported on this socket."},
    {10047, "The specified address family is not supported by this protocol"},
    {10048, "Specified address is in use"},
    {10049, "The specified address is not available from the local machine"},
    {10050, "Network subsystem is down"},
    {10051, "The network can't be reached from this host at this time"},
    {10055, "Not enough buffers available, too many connections"},
    {10056, "The socket is already connected"},
    {10060, "Attempt to connect timed out without establishing a connection"},
    {10061, "The attempt to connect was forcefully rejected"},
    {10093, "WINSOCK has not been initialized"},
};

// The text of `code`, or null.
const char* textIn(std::span<const CodeText> table, int code) {
    for (const CodeText& row : table) {
        if (row.code == code) return row.text;
    }
    return nullptr;
}

const char* firstOf(const char* first, const char* second, const char* otherwise) {
    if (first != nullptr) return first;
    return second != nullptr ? second : otherwise;
}

}  // namespace

const char* rv_VersionText() {
    constexpr auto digit = [](int number) { return static_cast<char>('0' + number); };
    static constexpr char text[] = {digit(kvx::kClientVersion[0]), '.',
                                    digit(kvx::kClientVersion[1]), '.',
                                    digit(kvx::kClientVersion[2]), 0};
    return text;
}

const char* rv_ErrorText(int code) {
    return firstOf(textIn(kSharedTexts, code), textIn(kSessionTexts, code), "");
}

const char* rvmsg_ErrorText(int code) {
    return firstOf(textIn(kMessageTexts, code), textIn(kSharedTexts, code), "");
}

const char* rvmsg_CoreErrorText(int code) {
    return firstOf(textIn(kSharedTexts, code), textIn(kMessageTexts, code), "");
}

const char* rvevm_ErrorText(int code) {
    return firstOf(textIn(kEventTexts, code), nullptr, "Unknown error.");
}

const char* ipq_ErrorText(int code) {
    return firstOf(textIn(kQueueTexts, code), nullptr, "An unknown error has occurred.");
}

const char* rv_SocketErrorText(int code) {
    return firstOf(textIn(kSocketTexts, code), nullptr, "***Unknown***");
}
