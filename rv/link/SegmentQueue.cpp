// The queue of outgoing messages, packed into segments.
//
// Messages wait in the block being written, part of which may have been sent, and in the segments
// behind it. A segment is one message in its own buffer, or several in a buffer of the segment
// size. A message joins the last segment while the result stays within the segment size, so that a
// burst of small messages costs few sends; only the first join copies the message already there.
// Both counts include the block being written until it is finished.

#include "rv/link/SegmentQueue.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace kvx::link {

SegmentQueue::SegmentQueue(const wire::QueueLimits& limits, std::size_t segmentSize)
    : limits_(limits), segmentSize_(segmentSize) {}

Added SegmentQueue::add(wire::OwnedMessage message, bool front) {
    const std::size_t length = message.size();
    if (isFull(length)) return Added::Refused;
    return place(std::move(message), length, front) ? count(length) : Added::NoMemory;
}

Added SegmentQueue::addCopy(wire::Bytes message) {
    const std::size_t length = message.size();
    if (isFull(length)) return Added::Refused;
    if (!empty() && last().used + length <= segmentSize_)
        return append(last(), message, segmentSize_) ? count(length) : Added::NoMemory;
    // Behind a full segment others are likely to follow.
    auto copy = wire::OwnedMessage::allocate(empty() ? length : std::max(length, segmentSize_));
    if (!copy.bytes) return Added::NoMemory;
    std::memcpy(copy.bytes.get(), message.data(), length);
    return startSegment(std::move(copy), length) ? count(length) : Added::NoMemory;
}

Added SegmentQueue::count(std::size_t length) {
    waitingBytes_ += length;
    ++waitingMessages_;
    if (limits_.messages <= 0 || waitingMessages_ < static_cast<unsigned long>(limits_.messages))
        return Added::Kept;
    dropOldest();
    return Added::KeptOthersDropped;
}

bool SegmentQueue::place(wire::OwnedMessage&& message, std::size_t length, bool front) {
    if (empty()) return startSegment(std::move(message), length);
    Segment& joined = front ? writing_ : last();
    if (front || joined.used + length <= segmentSize_)
        return append(joined, message.view(), std::max(segmentSize_, joined.used + length));
    return startSegment(std::move(message), length);
}

bool SegmentQueue::startSegment(wire::OwnedMessage&& message, std::size_t length) {
    if (empty()) {
        writing_ = {std::move(message), length, 1};
        offset_ = 0;
        return true;
    }
    try {
        waiting_.push_back({std::move(message), length, 1});
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool SegmentQueue::append(Segment& segment, wire::Bytes message, std::size_t capacity) {
    if (segment.bytes.capacity < segment.used + message.size()) {
        auto larger = wire::OwnedMessage::allocate(capacity);
        if (!larger.bytes) return false;
        std::memcpy(larger.bytes.get(), segment.bytes.bytes.get(), segment.used);
        segment.bytes = std::move(larger);
    }
    std::memcpy(segment.bytes.bytes.get() + segment.used, message.data(), message.size());
    segment.used += message.size();
    ++segment.messages;
    return true;
}

// Never drops the newest message: a segment that it shares with older ones stays.
void SegmentQueue::dropOldest() {
    if (waiting_.size() > 1) {
        forget(waiting_.front());
        waiting_.pop_front();
    } else if (waiting_.size() == 1 && offset_ == 0) {
        forget(writing_);
        startNext();
    }
}

void SegmentQueue::forget(const Segment& segment) {
    messagesDropped_ += segment.messages;
    waitingMessages_ -= segment.messages;
    waitingBytes_ -= segment.used;
}

std::size_t SegmentQueue::unwritten(std::span<Piece> pieces, std::size_t most) const {
    std::size_t used = 0;
    const auto add = [&](const Segment& segment, std::size_t offset) {
        const wire::Bytes rest(segment.bytes.bytes.get() + offset, segment.used - offset);
        pieces[used] = std::as_bytes(rest.first(std::min(rest.size(), most)));
        most -= pieces[used++].size();
    };
    if (!empty()) add(writing_, offset_);
    for (std::size_t i = 0; i < waiting_.size() && used < pieces.size() && most > 0; ++i) {
        add(waiting_[i], 0);
    }
    return used;
}

void SegmentQueue::written(std::size_t count) {
    while (count >= writing_.used - offset_ && !empty()) {
        count -= writing_.used - offset_;
        messagesWritten_ += writing_.messages;
        waitingMessages_ -= writing_.messages;
        waitingBytes_ -= writing_.used;
        startNext();
    }
    offset_ += count;
}

void SegmentQueue::discardBlock() {
    if (empty()) return;
    forget(writing_);
    startNext();
}

void SegmentQueue::clear() {
    writing_ = {};
    offset_ = 0;
    waiting_.clear();
    waitingMessages_ = 0;
    waitingBytes_ = 0;
}

void SegmentQueue::startNext() {
    offset_ = 0;
    if (waiting_.empty()) {
        writing_ = {};
        return;
    }
    writing_ = std::move(waiting_.front());
    waiting_.pop_front();
}

}  // namespace kvx::link
