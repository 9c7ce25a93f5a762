// What waits to be sent: packing, order and the two limits.

#include "rv/link/SegmentQueue.h"

namespace {

using kvx::link::Added;
using kvx::wire::QueueLimits;

// A queue of messages that are known by one character.
struct Queue : kvx::link::SegmentQueue {
    using SegmentQueue::SegmentQueue;

    Added put(char mark, std::size_t length = 20, bool front = false) {
        kvx::wire::OwnedMessage made;
        made.bytes.reset(static_cast<std::uint8_t*>(std::malloc(length)));
        made.capacity = static_cast<std::uint32_t>(length);
        std::memset(made.bytes.get(), mark, length);
        kvx::storeBig32(made.bytes.get(), made.capacity);
        return add(std::move(made), front);
    }
    void putAll(const std::string& marks, Added expected = Added::Kept) {
        for (const char mark : marks) EXPECT_EQ(put(mark), expected) << mark;
    }
    // Everything that waits, block by block.
    std::string drain() {
        std::string marks;
        while (!empty()) {
            const auto block = unwritten();
            for (std::size_t at = 0; at < block.size(); at += kvx::loadBig32(block.data() + at))
                marks += static_cast<char>(block[at + 4]);
            marks += '|';
            written(block.size());
        }
        return marks;
    }
};

TEST(SegmentQueue, PacksSmallMessagesAndKeepsTheirOrder) {
    Queue queue({}, 50);
    queue.putAll("abcde");
    EXPECT_EQ(queue.put('L', 300), Added::Kept);
    queue.putAll("f");
    EXPECT_EQ(queue.waitingMessages(), 7U);
    EXPECT_EQ(queue.waitingBytes(), 420U);
    EXPECT_EQ(queue.drain(), "ab|cd|e|L|f|");
    EXPECT_EQ(queue.waitingMessages(), 0U);
    EXPECT_EQ(queue.waitingBytes(), 0U);
    queue.putAll("abc");
    EXPECT_EQ(queue.put('x', 100, true), Added::Kept) << "into the block being written";
    EXPECT_EQ(queue.drain(), "abx|c|");
    queue.putAll("a");
    queue.written(7);
    queue.putAll("b");
    EXPECT_EQ(queue.unwritten().size(), 33U);
    EXPECT_EQ(queue.unwritten()[0], 'a');
    EXPECT_EQ(queue.unwritten()[13 + 4], 'b');
}

TEST(SegmentQueue, RefusesWhatWouldExceedTheByteLimit) {
    Queue queue(QueueLimits{.bytes = 50}, 8192);
    queue.putAll("a");
    EXPECT_EQ(queue.put('b', 30), Added::Kept);
    EXPECT_EQ(queue.put('c', 10), Added::Refused);
    queue.written(50);
    queue.putAll("d");
    EXPECT_EQ(queue.drain(), "d|");
}

TEST(SegmentQueue, MessageLimitDropsTheOldestSegmentButNeitherOneUnderWayNorTheNewest) {
    Queue queue(QueueLimits{.messages = 6}, 40);
    queue.putAll("abcde");
    queue.written(1);
    queue.putAll("f", Added::KeptOthersDropped);
    EXPECT_EQ(queue.waitingMessages(), 4U);
    EXPECT_EQ(queue.messagesDropped(), 2U);
    queue.written(39);
    EXPECT_EQ(queue.drain(), "ef|");
    Queue small(QueueLimits{.messages = 2}, 40);
    small.putAll("a");
    small.written(1);
    small.putAll("bcdefg", Added::KeptOthersDropped);
    EXPECT_LE(small.waitingMessages(), 4U);
    small.written(39);
    EXPECT_EQ(small.drain(), "g|");
}

}  // namespace
