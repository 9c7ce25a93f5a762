// A queue's life: made from an accepted parameter block, kept alive by a timer, closed.
//
// Its events hold the queue's address, so they are removed before the queue is freed, and it is
// freed only when none of its events is on the stack (`Running`). From `ipq_Close` on no callback
// is called.

#include <algorithm>
#include <new>
#include <utility>

#include "rv/link/QueueState.h"
#include "rv/wire/Negotiation.h"

namespace {

using kvx::link::Deadline;

std::size_t atLeast(std::size_t floor, std::int32_t value) {
    return value > 0 ? std::max(floor, static_cast<std::size_t>(value)) : floor;
}

void onKeepaliveTick(void* /*owner*/, void* closure, int /*kind*/, void* /*entry*/) {
    const auto queue = static_cast<ipq_Queue>(closure);
    const kvx::link::Running running(queue);
    kvx::link::keepAlive(queue);
}

// Reads and discards until the peer closes its end.
void awaitPeerClose(kvx::platform::SocketHandle socket) {
    const Deadline deadline = Deadline::in(kvx::link::kCloseWaitMs);
    std::array<std::byte, 4096> forgotten;
    while (!deadline.passed() && kvx::link::waitUntil(socket, kvx::platform::kReadable, deadline)) {
        const kvx::platform::IoResult got = kvx::platform::receiveSome(socket, forgotten);
        if (got.error == 0 && got.bytes == 0) return;
        if (got.error != 0 && got.error != kvx::platform::socket_error::kInterrupted &&
            got.error != kvx::platform::socket_error::kWouldBlock)
            return;
    }
}

void sayGoodbye(ipq_Queue queue) {
    if (kvx::link::writeAll(queue, kvx::link::kCloseWaitMs, Deadline()) != IPQ_OK) return;
    if (kvx::link::writeExactly(queue->socket.get(), kvx::wire::kCloseBlock,
                                Deadline::in(kvx::link::kCloseWaitMs)))
        awaitPeerClose(queue->socket.get());
}

}  // namespace

ipq_Queue_::ipq_Queue_(kvx::link::LinkHost& owner, const kvx::wire::QueueLimits& limits,
                       kvx::platform::Socket connected)
    : host(&owner),
      manager(owner.linkManager()),
      socket(std::move(connected)),
      writer(limits, kvx::link::kDefaultProperties.segmentSize) {
    ipq_SetProperties(this, owner.linkProperties());
    nextTick = kvx::platform::monotonicMs() + static_cast<long>(kvx::link::kKeepaliveTickMs);
}

std::size_t ipq_Queue_::sendCap() const {
    return buffersShort ? kvx::link::kReducedSendCap
                        : std::max(kvx::link::kSendCap, writer.segmentSize());
}

namespace kvx::link {

Running::~Running() {
    if (--queue_->running == 0 && queue_->closed) delete queue_;
}

void reportFailure(ipq_Queue queue) {
    if (queue->state != IPQ_PEER_GONE && queue->onError.function != nullptr)
        queue->onError.function(queue, queue->state, queue->onError.closure);
    if (!queue->closed && queue->onPeerGone.function != nullptr)
        queue->onPeerGone.function(queue, queue->state, queue->onPeerGone.closure);
}

// Sends a keepalive after a minute without traffic; continues a block that is still unwritten.
void keepAlive(ipq_Queue queue) {
    if (std::exchange(queue->traffic, false)) return;
    if (!queue->writer.empty()) {
        if (writeOn(queue) != IPQ_OK) reportFailure(queue);
        return;
    }
    auto message = wire::OwnedMessage::copyOf(wire::kKeepaliveBlock);
    if (!message.bytes) return;
    if (!ipq_Enqueue(queue, std::move(message), false) && queue->state != IPQ_LIMIT_EXCEEDED)
        reportFailure(queue);
}

int registerEvents(ipq_Queue queue) {
    if (queue->manager == nullptr) return 0;
    int code =
        rvevm_AddIO(queue->manager, &queue->readEvent,
                    static_cast<unsigned int>(queue->socket.get()), RVEVM_READ, onReadable, queue);
    if (code == 0)
        code = rvevm_AddRepeatTimer(queue->manager, &queue->keepaliveTimer, kKeepaliveTickMs,
                                    onKeepaliveTick, queue);
    if (code == 0 && !queue->writer.empty() && writeOn(queue) == IPQ_EVENT_FAILURE) code = 1;
    if (code != 0)
        removeEvents(queue);
    else
        continueReading(queue);
    return code;
}

void removeEvents(ipq_Queue queue) {
    if (queue->manager == nullptr) return;
    if (queue->readEvent != nullptr) rvevm_RemoveIO(queue->manager, queue->readEvent);
    if (queue->keepaliveTimer != nullptr) rvevm_RemoveTimer(queue->manager, queue->keepaliveTimer);
    if (queue->writeEvent != nullptr) rvevm_RemoveIO(queue->manager, queue->writeEvent);
    if (queue->retryTimer != nullptr) rvevm_RemoveTimer(queue->manager, queue->retryTimer);
    queue->readEvent = queue->keepaliveTimer = queue->writeEvent = queue->retryTimer = nullptr;
}

}  // namespace kvx::link

int ipq_Create(ipq_Queue* queue, kvx::link::LinkHost& session,
               const kvx::wire::ParameterBlock& block, kvx::platform::Socket socket) {
    *queue = nullptr;
    kvx::wire::QueueLimits limits;
    if (const int code = kvx::wire::queueLimits(block, limits); code != 0) return code;
    try {
        auto made = std::make_unique<ipq_Queue_>(session, limits, std::move(socket));
        kvx::platform::setNonBlocking(made->socket.get(), true);
        if (kvx::link::registerEvents(made.get()) != 0) return IPQ_EVENT_FAILURE;
        *queue = made.release();
    } catch (const std::bad_alloc&) {
        return IPQ_NO_MEMORY;
    }
    return IPQ_OK;
}

void ipq_Close(ipq_Queue queue, bool graceful) {
    if (queue->closed) return;
    queue->closed = true;
    if (graceful && queue->state != IPQ_PEER_GONE) sayGoodbye(queue);
    kvx::link::removeEvents(queue);
    queue->writer.clear();
    queue->socket.reset();
    if (queue->running == 0) delete queue;
}

int ipq_MoveToManager(ipq_Queue queue, kvx::link::LinkHost& session) {
    kvx::link::removeEvents(queue);
    queue->host = &session;
    queue->manager = session.linkManager();
    if (kvx::link::registerEvents(queue) != 0) return queue->state = IPQ_EVENT_FAILURE;
    return queue->state = IPQ_OK;
}

void ipq_SetProperties(ipq_Queue queue, const ipq_Properties& properties) {
    queue->batching = properties.batching != 0;
    queue->readBudget = atLeast(1, properties.readBudget);
    queue->writer.setSegmentSize(std::min<std::size_t>(
        atLeast(kvx::kHeaderBytes, properties.segmentSize), kvx::wire::kLinkLimit));
}

void ipq_SetBlocking(ipq_Queue queue, bool blocking) {
    queue->blocking = blocking;
    if (!blocking) kvx::link::continueReading(queue);
}

void ipq_SetStallLimit(ipq_Queue queue, kvx::platform::Milliseconds stall) {
    queue->stallLimit = stall;
}

ipq_Callback<ipq_MessageCallback> ipq_SetMessageCallback(ipq_Queue queue,
                                                         ipq_MessageCallback callback,
                                                         void* closure) {
    return std::exchange(queue->onMessage, {callback, closure});
}

ipq_Callback<ipq_EventCallback> ipq_SetPeerGoneCallback(ipq_Queue queue, ipq_EventCallback callback,
                                                        void* closure) {
    return std::exchange(queue->onPeerGone, {callback, closure});
}

ipq_Callback<ipq_EventCallback> ipq_SetErrorCallback(ipq_Queue queue, ipq_EventCallback callback,
                                                     void* closure) {
    return std::exchange(queue->onError, {callback, closure});
}

ipq_State ipq_StateOf(ipq_Queue queue) {
    return queue->state;
}
unsigned long ipq_WaitingMessages(ipq_Queue queue) {
    return queue->writer.waitingMessages();
}
unsigned long ipq_WaitingBytes(ipq_Queue queue) {
    return queue->writer.waitingBytes();
}

const ipq_Statistics& ipq_StatisticsOf(ipq_Queue queue) {
    queue->statistics.messagesWritten = queue->writer.messagesWritten();
    queue->statistics.messagesDropped = queue->writer.messagesDropped();
    return queue->statistics;
}
