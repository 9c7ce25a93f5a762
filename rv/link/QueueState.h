#pragma once

#include <array>
#include <memory>
#include <vector>

#include "rv/link/LinkIo.h"
#include "rv/link/SegmentQueue.h"
#include "rv/link/ipq.h"
#include "rv/wire/FrameReader.h"

namespace kvx::link {

inline constexpr std::size_t kReceiveBufferSize = 65'536;  // bytes received ahead at most
inline constexpr std::size_t kSendCap = 7'168;             // bytes of one send, or a segment
inline constexpr std::size_t kReducedSendCap = 4'096;      // after the system ran out of buffers
inline constexpr unsigned long kRetryMs = 4;               // retry of writes by timer
inline constexpr unsigned long kKeepaliveTickMs = 60'000;  // silence before a keepalive
inline constexpr platform::Milliseconds kCloseWaitMs = 5'000;    // for the peer to close its end
inline constexpr platform::Milliseconds kStallLimitMs = 60'000;  // blocking writes without progress

/// One received message and, when it came in pieces, its memory.
struct Received {
    wire::Envelope message;
    kvx::wire::Buffer assembled;
};

}  // namespace kvx::link

struct ipq_Queue_ {
    ipq_Queue_(kvx::link::LinkHost& owner, const kvx::wire::QueueLimits& limits,
               kvx::platform::Socket connected);

    [[nodiscard]] bool writesBlocking() const { return blocking || manager == nullptr; }
    [[nodiscard]] std::size_t sendCap() const;

    kvx::link::LinkHost* host;
    rvevm_Manager manager;  // the host's at registration; null: synchronous
    kvx::platform::Socket socket;
    ipq_State state = IPQ_OK;
    bool blocking = false;
    bool kept = false;     // the last enqueued message waits or was written
    bool traffic = false;  // since the last keepalive tick, in either direction
    kvx::platform::Milliseconds stallLimit = kvx::link::kStallLimitMs;
    bool batching = false;
    std::size_t readBudget = 0;

    // Receiving. While a message of the buffer is being delivered (`lent`), the buffer is not
    // written to: new input goes into a fresh one, and the old one is kept among the retired.
    kvx::wire::FrameReader reader;
    std::unique_ptr<std::byte[]> buffer;
    std::vector<std::unique_ptr<std::byte[]>> retired;
    kvx::link::Received current;  // what ipq_Read gave last
    int lent = 0;
    bool drained = false;  // the last receive took all that had arrived

    // Sending.
    kvx::link::SegmentQueue writer;
    bool buffersShort = false;  // the system ran out of buffers for a large send

    // Registrations; null when there is none.
    rvevm_Id readEvent = nullptr;
    rvevm_Id writeEvent = nullptr;
    rvevm_Id retryTimer = nullptr;
    rvevm_Id keepaliveTimer = nullptr;

    kvx::platform::Milliseconds nextTick = 0;  // the keepalive's, without a timer

    // Callbacks on the stack; the queue is freed when the last one has returned.
    int running = 0;
    bool closed = false;

    ipq_Callback<ipq_MessageCallback> onMessage;
    ipq_Callback<ipq_EventCallback> onPeerGone;
    ipq_Callback<ipq_EventCallback> onError;
    ipq_Statistics statistics;
};

namespace kvx::link {

/// Keeps a queue allocated while one of its events runs.
class Running {
  public:
    explicit Running(ipq_Queue queue) : queue_(queue) { ++queue_->running; }
    ~Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

  private:
    ipq_Queue queue_;
};

/// Reports the end of the link to the owner; within a `Running`.
void reportFailure(ipq_Queue queue);

/// Sends a keepalive unless there was traffic since the last call; within a `Running`.
void keepAlive(ipq_Queue queue);

/// Registers and removes the events of a queue. `registerEvents` returns an event-manager code; on
/// failure nothing stays registered.
int registerEvents(ipq_Queue queue);
void removeEvents(ipq_Queue queue);

/// Makes the read event ready for the next step when whole messages wait.
void continueReading(ipq_Queue queue);

/// The event callbacks.
void onReadable(void* owner, void* closure, int kind, void* entry);
void onWritable(void* owner, void* closure, int kind, void* entry);

/// Writes until the queue is empty, the socket would block (4) or the link is broken (7).
ipq_State writeSome(ipq_Queue queue);
/// Writes everything, waiting for a slow peer up to `stall` without progress or `deadline` in all.
ipq_State writeAll(ipq_Queue queue, platform::Milliseconds stall, const Deadline& deadline);
/// Writes what the socket takes now and registers an event for the rest.
ipq_State writeOn(ipq_Queue queue);

}  // namespace kvx::link
