#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <span>

#include "rv/wire/ControlMessage.h"
#include "rv/wire/Negotiation.h"

namespace kvx::link {

/// The result of adding a message.
enum class Added {
    Kept,
    KeptOthersDropped,  ///< the message limit is reached; the oldest waiting segment may be gone
    Refused,            ///< the byte limit
    NoMemory,
};

/// The outgoing messages of a link: the block being written and the segments that wait behind it.
/// Bytes in, bytes out; no socket.
class SegmentQueue {
  public:
    using Piece = std::span<const std::byte>;

    SegmentQueue(const wire::QueueLimits& limits, std::size_t segmentSize);

    /// Adds a whole message. `front` appends it to the block being written whatever the segment
    /// size.
    [[nodiscard]] Added add(wire::OwnedMessage message, bool front);
    /// The same with a copy, at the end.
    [[nodiscard]] Added addCopy(wire::Bytes message);

    [[nodiscard]] bool empty() const { return !writing_.bytes.bytes; }
    /// At most `most` bytes to write next: of the block being written, then of the segments behind
    /// it. Returns how many of `pieces` they are in.
    [[nodiscard]] std::size_t unwritten(std::span<Piece> pieces, std::size_t most) const;
    /// Marks the next `count` bytes as written. After a finished block the next segment follows.
    void written(std::size_t count);
    /// Drops the block being written.
    void discardBlock();
    /// Drops everything.
    void clear();

    void setSegmentSize(std::size_t bytes) { segmentSize_ = bytes; }
    [[nodiscard]] std::size_t segmentSize() const { return segmentSize_; }
    [[nodiscard]] unsigned long waitingMessages() const { return waitingMessages_; }
    [[nodiscard]] unsigned long waitingBytes() const { return waitingBytes_; }
    [[nodiscard]] std::uint64_t messagesWritten() const { return messagesWritten_; }
    [[nodiscard]] std::uint64_t messagesDropped() const { return messagesDropped_; }

  private:
    struct Segment {
        wire::OwnedMessage bytes;
        std::size_t used = 0;  // bytes of whole messages in it
        unsigned long messages = 0;
    };

    [[nodiscard]] bool isFull(std::size_t length) const {
        return limits_.bytes != 0 && waitingBytes_ + length > limits_.bytes;
    }
    [[nodiscard]] Segment& last() { return waiting_.empty() ? writing_ : waiting_.back(); }
    [[nodiscard]] bool place(wire::OwnedMessage&& message, std::size_t length, bool front);
    [[nodiscard]] bool startSegment(wire::OwnedMessage&& message, std::size_t length);
    [[nodiscard]] static bool append(Segment& segment, wire::Bytes message, std::size_t capacity);
    Added count(std::size_t length);
    void dropOldest();
    void forget(const Segment& segment);
    void startNext();

    const wire::QueueLimits limits_;
    std::size_t segmentSize_;
    Segment writing_;
    std::size_t offset_ = 0;  // bytes of writing_ that have been written
    std::deque<Segment> waiting_;
    unsigned long waitingMessages_ = 0;
    unsigned long waitingBytes_ = 0;
    std::uint64_t messagesWritten_ = 0;
    std::uint64_t messagesDropped_ = 0;
};

}  // namespace kvx::link
