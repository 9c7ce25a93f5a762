// The receiving half of a link.
//
// Bytes are received ahead, up to 64 KiB at a time, and cut into messages that are delivered in
// place. So whole messages may wait here although the socket has no input: a turn that ends with
// such a rest makes the read event ready for the next step. Keepalives, close notices and broken
// frames take effect in stream order, not when they arrive.
//
// Messages are passed to the owner one at a time. Its callback may close the queue (the loop stops,
// and the queue is freed when it has returned) or read on (the buffer under delivery is then not
// written to, see `lent`).

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <new>
#include <utility>

#include "rv/event/EventManagerExtras.h"
#include "rv/link/QueueState.h"
#include "rv/message/rvmsg.h"

namespace kvx::link {

namespace error = platform::socket_error;

namespace {

std::atomic<const int*> traceLevel{nullptr};

bool isTracing() {
    const int* level = traceLevel;
    return level != nullptr && *level >= 1;
}

// A receive buffer that is not under delivery.
std::span<std::byte> receiveBuffer(ipq_Queue queue) {
    if (queue->lent > 0 && queue->buffer) queue->retired.push_back(std::move(queue->buffer));
    if (!queue->buffer) queue->buffer = std::make_unique<std::byte[]>(kReceiveBufferSize);
    return {queue->buffer.get(), kReceiveBufferSize};
}

ipq_State stateOfReceiveError(const ipq_Queue_& queue, int code) {
    switch (code) {
        case error::kWouldBlock:
        case error::kInProgress:
            return IPQ_EMPTY;
        case error::kNoBuffers:
        case error::kNoMemory:
            return queue.blocking ? IPQ_NO_MEMORY : IPQ_EMPTY;
        default:
            return IPQ_PEER_GONE;
    }
}

// Receives once and feeds the reader. Returns 0, or the state when nothing was received.
ipq_State receive(ipq_Queue queue) {
    const std::span<std::byte> buffer = receiveBuffer(queue);
    platform::IoResult got;
    do {
        got = platform::receiveSome(queue->socket.get(), buffer);
    } while (got.error == error::kInterrupted);
    if (got.error != 0) return stateOfReceiveError(*queue, got.error);
    if (got.bytes == 0) return IPQ_PEER_GONE;
    queue->traffic = true;
    queue->drained = got.bytes < buffer.size();
    queue->reader.feed({reinterpret_cast<const std::uint8_t*>(buffer.data()), got.bytes});
    return IPQ_OK;
}

void answerClose(ipq_Queue queue) {
    static_cast<void>(writeExactly(queue->socket.get(), wire::kCloseBlock, Deadline::in(0)));
}

bool accept(ipq_Queue queue, const wire::Frame& frame, Received& received) {
    if (frame.assembled) received.assembled = queue->reader.takeAssembled();
    if (wire::openEnvelope(frame.bytes, received.message) != 0) {
        ++queue->statistics.messagesInvalid;
        if (isTracing())
            std::fprintf(stderr, "Rendezvous dropped an invalid message of %zu bytes\n",
                         frame.bytes.size());
        return false;
    }
    ++queue->statistics.messagesRead;
    queue->statistics.bytesRead += frame.bytes.size();
    return true;
}

// The next valid message among the bytes received so far: 0, 4 or 7.
ipq_State cutMessage(ipq_Queue queue, Received& received) {
    for (;;) {
        const wire::Frame frame = queue->reader.next();
        switch (frame.kind) {
            case wire::FrameKind::None:
                return IPQ_EMPTY;
            case wire::FrameKind::Message:
                if (accept(queue, frame, received)) return IPQ_OK;
                break;
            case wire::FrameKind::Keepalive:
                break;
            case wire::FrameKind::Close:
                answerClose(queue);
                return IPQ_PEER_GONE;
            case wire::FrameKind::Broken:
                return IPQ_PEER_GONE;
        }
    }
}

// One message without waiting; receives at most once.
ipq_State readOne(ipq_Queue queue, Received& received) {
    try {
        queue->state = cutMessage(queue, received);
        if (queue->state != IPQ_EMPTY || queue->drained) return queue->state;
        queue->state = receive(queue);
        if (queue->state == IPQ_OK) queue->state = cutMessage(queue, received);
    } catch (const std::bad_alloc&) {
        queue->state = IPQ_NO_MEMORY;
    }
    return queue->state;
}

ipq_State readWithin(ipq_Queue queue, platform::Milliseconds timeout, Received& received) {
    const Deadline deadline = Deadline::in(timeout);
    for (;;) {
        queue->drained = false;
        if (readOne(queue, received) != IPQ_EMPTY) return queue->state;
        if (!waitUntil(queue->socket.get(), platform::kReadable, deadline))
            return queue->state = deadline.passed() ? IPQ_EMPTY : IPQ_PEER_GONE;
        if (deadline.passed()) return queue->state = IPQ_EMPTY;
    }
}

void tickWhenDue(ipq_Queue queue) {
    const platform::Milliseconds now = platform::monotonicMs();
    if (now < queue->nextTick) return;
    queue->nextTick = now + static_cast<platform::Milliseconds>(kKeepaliveTickMs);
    keepAlive(queue);
}

// The same for a queue without timers, whose keepalives fall due while it waits.
ipq_State readAndKeepAlive(ipq_Queue queue, platform::Milliseconds timeout, Received& received) {
    const Deadline deadline = Deadline::in(timeout);
    for (;;) {
        tickWhenDue(queue);
        if (queue->closed) return queue->state;
        const platform::Milliseconds left = deadline.left();
        const auto untilTick =
            std::max<platform::Milliseconds>(0, queue->nextTick - platform::monotonicMs());
        const bool tickFirst = left == platform::kForever || untilTick < left;
        const ipq_State state = readWithin(queue, tickFirst ? untilTick : left, received);
        if (state != IPQ_EMPTY || !tickFirst) return state;
    }
}

void deliver(ipq_Queue queue, const Received& received) {
    if (queue->onMessage.function == nullptr) return;
    ++queue->lent;
    queue->onMessage.function(queue, received.message, queue->onMessage.closure);
    if (--queue->lent == 0) queue->retired.clear();
}

// Delivers messages until the budget is used up, nothing is left or the queue is closed.
void readTurn(ipq_Queue queue) {
    queue->drained = false;
    Received received;
    for (std::size_t consumed = 0; consumed < queue->readBudget;) {
        const ipq_State state = readOne(queue, received);
        if (state == IPQ_EMPTY) return;
        if (state != IPQ_OK) return reportFailure(queue);
        consumed += received.message.bytes.size();
        deliver(queue, received);
        if (queue->closed) return;
    }
}

}  // namespace

void setTraceLevel(const int* level) noexcept {
    traceLevel = level;
}

void onReadable(void* /*owner*/, void* closure, int /*kind*/, void* /*entry*/) {
    const auto queue = static_cast<ipq_Queue>(closure);
    const Running running(queue);
    readTurn(queue);
    if (!queue->closed) continueReading(queue);
}

void continueReading(ipq_Queue queue) {
    if (queue->readEvent != nullptr && queue->reader.ready())
        static_cast<void>(event::makeReady(queue->manager, queue->readEvent));
}

}  // namespace kvx::link

kvx::wire::Bytes ipq_Read(ipq_Queue queue) {
    return ipq_ReadWithin(queue, queue->blocking ? kvx::platform::kForever : 0);
}

kvx::wire::Bytes ipq_ReadWithin(ipq_Queue queue, kvx::platform::Milliseconds timeout) {
    if (kvx::link::readWithin(queue, timeout, queue->current) != IPQ_OK) return {};
    return queue->current.message.bytes;
}

ipq_State ipq_DispatchOne(ipq_Queue queue, kvx::platform::Milliseconds timeout) {
    const kvx::link::Running running(queue);
    kvx::link::Received received;
    const ipq_State state = queue->manager == nullptr
                                ? kvx::link::readAndKeepAlive(queue, timeout, received)
                                : kvx::link::readWithin(queue, timeout, received);
    if (queue->closed) return state;
    if (state == IPQ_OK)
        kvx::link::deliver(queue, received);
    else if (state != IPQ_EMPTY)
        kvx::link::reportFailure(queue);
    return state;
}
