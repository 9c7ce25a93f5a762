// The sending half of a link: from the segment queue to the socket.
//
// A message in an empty queue is written at once (in batching mode at the next write event). All
// others wait behind the block being written until the socket takes more, which a write event
// reports, or a retry timer where that event cannot be registered. One send takes several segments,
// up to the cap, which a property can make large.

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/link/QueueState.h"

namespace kvx::link {

namespace error = platform::socket_error;

namespace {

int askForWriteEvent(ipq_Queue queue) {
    if (queue->writeEvent != nullptr || queue->retryTimer != nullptr) return 0;
    const int code =
        rvevm_AddIO(queue->manager, &queue->writeEvent,
                    static_cast<unsigned int>(queue->socket.get()), RVEVM_WRITE, onWritable, queue);
    if (code != event_code::kNotSupported) return code;
    return rvevm_AddRepeatTimer(queue->manager, &queue->retryTimer, kRetryMs, onWritable, queue);
}

void dropWriteEvent(ipq_Queue queue) {
    if (queue->writeEvent != nullptr) rvevm_RemoveIO(queue->manager, queue->writeEvent);
    if (queue->retryTimer != nullptr) rvevm_RemoveTimer(queue->manager, queue->retryTimer);
    queue->writeEvent = nullptr;
    queue->retryTimer = nullptr;
}

// One send. True when the next one may be tried at once.
bool sendChunk(ipq_Queue queue) {
    std::array<SegmentQueue::Piece, platform::kMaxPieces> pieces;
    const std::size_t used = queue->writer.unwritten(pieces, queue->sendCap());
    std::size_t offered = 0;
    for (std::size_t i = 0; i < used; ++i) offered += pieces[i].size();
    const platform::IoResult sent =
        platform::sendPieces(queue->socket.get(), std::span(pieces).first(used));
    ++queue->statistics.writeAttempts;
    if (sent.error == 0) {
        queue->traffic = true;
        queue->statistics.bytesWritten += sent.bytes;
        if (sent.bytes < offered) ++queue->statistics.shortWrites;
        queue->writer.written(sent.bytes);
        queue->state = IPQ_OK;
        return true;
    }
    if (sent.error == error::kInterrupted) return true;
    if (sent.error == error::kWouldBlock) {
        queue->state = IPQ_EMPTY;
        return false;
    }
    if (sent.error == error::kNoBuffers && offered > kReducedSendCap) {
        queue->buffersShort = true;
        return true;
    }
    queue->state = IPQ_PEER_GONE;
    queue->writer.discardBlock();
    return false;
}

// Called after a message was added; `idle`: the queue was empty before.
ipq_State startWriting(ipq_Queue queue, bool idle) {
    if (queue->writesBlocking()) return writeAll(queue, queue->stallLimit, Deadline());
    const bool isAskedFor = queue->writeEvent != nullptr || queue->retryTimer != nullptr;
    if (!idle && isAskedFor) return IPQ_OK;
    if (!queue->batching) return writeOn(queue);
    return askForWriteEvent(queue) == 0 ? IPQ_OK : IPQ_EVENT_FAILURE;
}

bool afterAdding(ipq_Queue queue, Added added, bool idle) {
    queue->kept = added == Added::Kept || added == Added::KeptOthersDropped;
    if (!queue->kept) {
        queue->state = added == Added::Refused ? IPQ_LIMIT_EXCEEDED : IPQ_NO_MEMORY;
        return false;
    }
    queue->state = startWriting(queue, idle);
    if (queue->state == IPQ_OK && added == Added::KeptOthersDropped)
        queue->state = IPQ_LIMIT_EXCEEDED;
    return queue->state == IPQ_OK;
}

}  // namespace

ipq_State writeSome(ipq_Queue queue) {
    queue->state = IPQ_OK;
    while (!queue->writer.empty() && sendChunk(queue)) {
    }
    return queue->state;
}

ipq_State writeAll(ipq_Queue queue, platform::Milliseconds stall, const Deadline& deadline) {
    for (;;) {
        if (writeSome(queue) != IPQ_EMPTY) return queue->state;
        const platform::Milliseconds left = deadline.left();
        const bool stallFirst = left == platform::kForever || stall < left;
        const Deadline next = stallFirst ? Deadline::in(stall) : deadline;
        if (waitUntil(queue->socket.get(), platform::kWritable, next)) continue;
        return queue->state = stallFirst || !deadline.passed() ? IPQ_PEER_GONE : IPQ_EMPTY;
    }
}

ipq_State writeOn(ipq_Queue queue) {
    const ipq_State state = writeSome(queue);
    if (state == IPQ_PEER_GONE) return state;
    if (queue->writer.empty()) {
        dropWriteEvent(queue);
        return queue->state = IPQ_OK;
    }
    return queue->state = askForWriteEvent(queue) == 0 ? IPQ_OK : IPQ_EVENT_FAILURE;
}

void onWritable(void* /*owner*/, void* closure, int /*kind*/, void* /*entry*/) {
    const auto queue = static_cast<ipq_Queue>(closure);
    const Running running(queue);
    if (writeOn(queue) != IPQ_OK) reportFailure(queue);
}

}  // namespace kvx::link

bool ipq_Enqueue(ipq_Queue queue, kvx::wire::OwnedMessage message, bool front) {
    const bool idle = queue->writer.empty();
    return kvx::link::afterAdding(queue, queue->writer.add(std::move(message), front), idle);
}

bool ipq_EnqueueCopy(ipq_Queue queue, kvx::wire::Bytes message) {
    const bool idle = queue->writer.empty();
    return kvx::link::afterAdding(queue, queue->writer.addCopy(message), idle);
}

bool ipq_WasKept(ipq_Queue queue) {
    return queue->kept;
}

ipq_State ipq_Flush(ipq_Queue queue, kvx::platform::Milliseconds timeout) {
    const auto deadline = kvx::link::Deadline::in(timeout);
    const ipq_State state = kvx::link::writeAll(queue, queue->stallLimit, deadline);
    if (state == IPQ_OK && queue->manager != nullptr) return kvx::link::writeOn(queue);
    return state;
}
