#pragma once

/// The queue transport of the daemon link: complete messages in both directions over one socket.
///
/// A queue is made by one of the two negotiations (or by `ipq_Create` from an accepted block), owns
/// its socket, and runs on the event manager of its host with a read event, a write event or a
/// retry timer, and a keepalive timer. Loop thread only. Codes are those of `ipq_ErrorText`.

#include <cstddef>
#include <cstdint>

#include "platform/Clock.h"
#include "platform/Export.h"
#include "platform/Socket.h"
#include "rv/event/rvevm.h"
#include "rv/link/ipqProperties.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/Negotiation.h"

namespace kvx::link {

/// The default queue properties of a link.
inline constexpr ipq_Properties kDefaultProperties = {
    .batching = 0, .readBudget = 4096, .segmentSize = 8192};

/// What a queue needs from its session. The host must outlive its queues.
class LinkHost {
  public:
    /// The manager on which the queue registers its events; null for a synchronous session, whose
    /// queue writes before `ipq_Enqueue` returns and is read by hand.
    [[nodiscard]] virtual rvevm_Manager linkManager() const = 0;
    [[nodiscard]] virtual ipq_Properties linkProperties() const = 0;

  protected:
    LinkHost() = default;
    LinkHost(const LinkHost&) = default;
    LinkHost& operator=(const LinkHost&) = default;
    ~LinkHost() = default;
};

/// Sets the variable that holds the bus library's trace level on standard error; null for no
/// traces. The variable must stay valid. Any thread.
KVX_API void setTraceLevel(const int* level) noexcept;

}  // namespace kvx::link

using ipq_Queue = struct ipq_Queue_*;

/// The state of a queue after its last operation; also the results of `ipq_Create`.
enum ipq_State : int {
    IPQ_OK = 0,
    IPQ_NO_MEMORY = 1,
    IPQ_BAD_LIMIT = 2,
    IPQ_LIMIT_EXCEEDED = 3,
    IPQ_EMPTY = 4,  ///< nothing to read yet
    IPQ_EVENT_FAILURE = 6,
    IPQ_PEER_GONE = 7,
    IPQ_BAD_TYPE = 8,
};

/// Results of the two negotiations, beside 0.
enum ipq_SetupResult : int {
    IPQ_SETUP_OK = 0,
    IPQ_SETUP_EXCHANGE_FAILED = 8,
    IPQ_SETUP_DISAGREEMENT = 9,
    IPQ_SETUP_NO_QUEUE = 10,
};

struct ipq_Statistics {
    std::uint64_t messagesRead = 0;
    std::uint64_t bytesRead = 0;
    std::uint64_t messagesInvalid = 0;  ///< received with a valid length, but invalid fields
    std::uint64_t messagesWritten = 0;
    std::uint64_t bytesWritten = 0;
    std::uint64_t messagesDropped = 0;  ///< by the message limit
    std::uint64_t writeAttempts = 0;
    std::uint64_t shortWrites = 0;  ///< sends that took less than was offered
};

/// `message` has been checked as a whole, and its bytes are valid until the callback returns; the
/// callback may close the queue.
using ipq_MessageCallback = void (*)(ipq_Queue queue, const kvx::wire::Envelope& message,
                                     void* closure);
/// Peer gone, and errors; called from an event of the queue or `ipq_DispatchOne`, never from
/// another operation. The callback usually closes the queue.
using ipq_EventCallback = void (*)(ipq_Queue queue, ipq_State state, void* closure);

template <class Function>
struct ipq_Callback {
    Function function = nullptr;
    void* closure = nullptr;
};

/// Version 3 setup and version 4 negotiation, each within 5 s. Takes ownership of `socket`, which
/// is closed on failure.
int ipq_CreateV3(ipq_Queue* queue, kvx::link::LinkHost& session, kvx::platform::Socket socket);
int ipq_NegotiateV4(ipq_Queue* queue, kvx::link::LinkHost& session, kvx::platform::Socket socket);

/// Makes the queue from an accepted block. The caller owns the result and ends it with `ipq_Close`.
/// Returns 8 for a wrong queue type, 2 for a bad limit, 1 without memory, 6 when its events cannot
/// be registered.
int ipq_Create(ipq_Queue* queue, kvx::link::LinkHost& session,
               const kvx::wire::ParameterBlock& block, kvx::platform::Socket socket);

/// Takes ownership of a message, which is written at once, queued, or refused. `front` appends it
/// to the block being written. True when it was accepted and nothing was dropped; otherwise
/// `ipq_StateOf` returns the reason, and after state 3 `ipq_WasKept` whether the message is queued.
bool ipq_Enqueue(ipq_Queue queue, kvx::wire::OwnedMessage message, bool front);
/// The same with a copy of the message, for short ones: packing them with others copies them
/// anyhow.
bool ipq_EnqueueCopy(ipq_Queue queue, kvx::wire::Bytes message);
bool ipq_WasKept(ipq_Queue queue);

/// The next valid message, empty when there is none (`ipq_StateOf`: 4 nothing yet, 7 peer gone, 1
/// no memory). Waits in blocking mode. The bytes belong to the queue until the next read.
kvx::wire::Bytes ipq_Read(ipq_Queue queue);
/// The same, waiting at most `timeout` (`kForever` for no limit) in either mode.
kvx::wire::Bytes ipq_ReadWithin(ipq_Queue queue, kvx::platform::Milliseconds timeout);

/// Waits at most `timeout` for one message and passes it to the message callback. State 0 when
/// there was one, 4 at the time-out, 7 when the peer is gone (its callback has been called). The
/// queue may have been freed by then.
ipq_State ipq_DispatchOne(ipq_Queue queue, kvx::platform::Milliseconds timeout);

/// Writes the queue for at most `timeout`. Returns 0 when it is empty, 4 at the time-out, 7 when
/// the peer is gone.
ipq_State ipq_Flush(ipq_Queue queue, kvx::platform::Milliseconds timeout);

/// In blocking mode a write is finished before `ipq_Enqueue` returns, and a peer that takes nothing
/// for `stall` counts as gone. The queue of a synchronous session is always in blocking mode for
/// writing.
void ipq_SetBlocking(ipq_Queue queue, bool blocking);
void ipq_SetStallLimit(ipq_Queue queue, kvx::platform::Milliseconds stall);

/// Each returns the previous callback.
ipq_Callback<ipq_MessageCallback> ipq_SetMessageCallback(ipq_Queue queue,
                                                         ipq_MessageCallback callback,
                                                         void* closure);
ipq_Callback<ipq_EventCallback> ipq_SetPeerGoneCallback(ipq_Queue queue, ipq_EventCallback callback,
                                                        void* closure);
ipq_Callback<ipq_EventCallback> ipq_SetErrorCallback(ipq_Queue queue, ipq_EventCallback callback,
                                                     void* closure);

/// Registers the queue's events again, with the manager of `session`, which becomes its host.
int ipq_MoveToManager(ipq_Queue queue, kvx::link::LinkHost& session);

/// Closes the socket and frees the queue; inside one of its callbacks, when that returns. No
/// further callback is called. A graceful close first writes the queue and the close block, then
/// waits up to 5 s for the peer to close.
void ipq_Close(ipq_Queue queue, bool graceful);

void ipq_SetProperties(ipq_Queue queue, const ipq_Properties& properties);
ipq_State ipq_StateOf(ipq_Queue queue);
unsigned long ipq_WaitingMessages(ipq_Queue queue);
unsigned long ipq_WaitingBytes(ipq_Queue queue);
const ipq_Statistics& ipq_StatisticsOf(ipq_Queue queue);
