// What waits to be sent: packing, order and the two limits.

#include "rv/link/SegmentQueue.h"

#include <cstring>

namespace {

using kvx::link::Added;
using kvx::link::SegmentQueue;
using kvx::wire::OwnedMessage;
using kvx::wire::QueueLimits;

// A message of `length` bytes filled with `mark`.
OwnedMessage message(char mark, std::size_t length = 20) {
    OwnedMessage made;
    made.bytes.reset(static_cast<std::uint8_t*>(std::malloc(length)));
    made.capacity = static_cast<std::uint32_t>(length);
    std::memset(made.bytes.get(), mark, length);
    kvx::storeBig32(made.bytes.get(), made.capacity);
    return made;
}

// Everything that waits, as one character a message, block by block.
std::string drain(SegmentQueue& queue) {
    std::string marks;
    while (!queue.empty()) {
        const auto block = queue.unwritten();
        for (std::size_t at = 0; at < block.size(); at += kvx::loadBig32(block.data() + at))
            marks += static_cast<char>(block[at + 4]);
        marks += '|';
        queue.written(block.size());
    }
    return marks;
}

TEST(SegmentQueue, PacksSmallMessagesAndKeepsTheirOrder) {
    SegmentQueue queue({}, 50);
    for (const char mark : std::string("abcde"))
        EXPECT_EQ(queue.add(message(mark), false), Added::Kept);
    EXPECT_EQ(queue.add(message('L', 300), false), Added::Kept);
    EXPECT_EQ(queue.add(message('f'), false), Added::Kept);
    EXPECT_EQ(queue.waitingMessages(), 7U);
    EXPECT_EQ(queue.waitingBytes(), 420U);
    EXPECT_EQ(drain(queue), "ab|cd|e|L|f|");
    EXPECT_EQ(queue.waitingMessages(), 0U);
    EXPECT_EQ(queue.waitingBytes(), 0U);
}

TEST(SegmentQueue, AppendsToABlockThatIsPartlyWritten) {
    SegmentQueue queue({}, 60);
    ASSERT_EQ(queue.add(message('a'), false), Added::Kept);
    queue.written(7);
    ASSERT_EQ(queue.add(message('b'), false), Added::Kept);
    EXPECT_EQ(queue.unwritten().size(), 33U);
    EXPECT_EQ(queue.unwritten()[0], 'a');
    EXPECT_EQ(queue.unwritten()[13 + 4], 'b');
}

TEST(SegmentQueue, FrontJoinsTheBlockBeingWrittenWhateverItsSize) {
    SegmentQueue queue({}, 40);
    for (const char mark : std::string("abc"))
        ASSERT_EQ(queue.add(message(mark), false), Added::Kept);
    ASSERT_EQ(queue.add(message('x', 100), true), Added::Kept);
    EXPECT_EQ(drain(queue), "abx|c|");
}

TEST(SegmentQueue, RefusesWhatWouldExceedTheByteLimit) {
    SegmentQueue queue(QueueLimits{.bytes = 50}, 8192);
    EXPECT_EQ(queue.add(message('a'), false), Added::Kept);
    EXPECT_EQ(queue.add(message('b', 30), false), Added::Kept);
    EXPECT_EQ(queue.add(message('c', 10), false), Added::Refused);
    queue.written(50);
    EXPECT_EQ(queue.add(message('d'), false), Added::Kept);
    EXPECT_EQ(drain(queue), "d|");
}

TEST(SegmentQueue, MessageLimitDropsTheOldestWaitingSegmentAndKeepsTheNewest) {
    SegmentQueue queue(QueueLimits{.messages = 6}, 40);
    for (const char mark : std::string("abcde"))
        ASSERT_EQ(queue.add(message(mark), false), Added::Kept);
    queue.written(1);
    EXPECT_EQ(queue.add(message('f'), false), Added::KeptOthersDropped);
    EXPECT_EQ(queue.waitingMessages(), 4U);
    EXPECT_EQ(queue.messagesDropped(), 2U);
    queue.written(39);
    EXPECT_EQ(drain(queue), "ef|");
}

TEST(SegmentQueue, AtTheMessageLimitABlockUnderWayAndTheNewestStay) {
    SegmentQueue queue(QueueLimits{.messages = 2}, 40);
    ASSERT_EQ(queue.add(message('a'), false), Added::Kept);
    queue.written(1);
    for (const char mark : std::string("bcdefg"))
        EXPECT_EQ(queue.add(message(mark), false), Added::KeptOthersDropped);
    EXPECT_LE(queue.waitingMessages(), 4U);
    queue.written(39);
    EXPECT_EQ(drain(queue), "g|");
}

}  // namespace
