// A queue on one end of a connection: what waits to be sent, what it makes of what its peer sends,
// and what it puts on the wire, and when.

#include "rv/link/SegmentQueue.h"
#include "tests/rv/link/LinkFixture.h"

namespace {

using kvx::link::Added;
using kvx::wire::QueueLimits;

// A queue of messages that are known by one character.
struct Queue : kvx::link::SegmentQueue {
    using SegmentQueue::SegmentQueue;
    bool copies = false;  // what is put at the end

    Added put(char mark, std::size_t length = 20, bool front = false) {
        kvx::wire::OwnedMessage made;
        made.bytes.reset(static_cast<std::uint8_t*>(std::malloc(length)));
        made.capacity = static_cast<std::uint32_t>(length);
        std::memset(made.bytes.get(), mark, length);
        kvx::storeBig32(made.bytes.get(), made.capacity);
        if (copies && !front) return addCopy(made.view());
        return add(std::move(made), front);
    }
    void putAll(const std::string& marks, Added expected = Added::Kept) {
        for (const char mark : marks) EXPECT_EQ(put(mark), expected) << mark;
    }
    // What is written next: of the block being written, and in all.
    kvx::wire::Bytes block() const {
        std::array<Piece, 1> piece;
        EXPECT_EQ(unwritten(piece, 100'000), 1U);
        return {reinterpret_cast<const std::uint8_t*>(piece[0].data()), piece[0].size()};
    }
    std::string next(std::size_t most) const {
        std::array<Piece, 16> pieces;
        std::string bytes;
        const std::size_t used = unwritten(pieces, most);
        for (std::size_t i = 0; i < used; ++i)
            bytes.append(reinterpret_cast<const char*>(pieces[i].data()), pieces[i].size());
        return bytes;
    }
    // Everything that waits, block by block.
    std::string drain() {
        std::string marks;
        while (!empty()) {
            const auto block = this->block();
            for (std::size_t at = 0; at < block.size(); at += kvx::loadBig32(block.data() + at))
                marks += static_cast<char>(block[at + 4]);
            marks += '|';
            written(block.size());
        }
        return marks;
    }
};

void packsSmallMessagesAndKeepsTheirOrder(bool copies) {
    Queue queue({}, 50);
    queue.copies = copies;
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
    EXPECT_EQ(queue.block().size(), 33U);
    EXPECT_EQ(queue.block()[0], 'a');
    EXPECT_EQ(queue.block()[13 + 4], 'b');
}

TEST(SegmentQueue, PacksSmallMessagesAndKeepsTheirOrder) {
    packsSmallMessagesAndKeepsTheirOrder(false);
    packsSmallMessagesAndKeepsTheirOrder(true);
}

// Wherever a send ends, the next one begins there.
TEST(SegmentQueue, OneSendTakesSeveralSegments) {
    for (std::size_t taken = 1; taken <= 90; ++taken) {
        Queue queue({}, 50);
        queue.putAll("abcdef");
        const std::string all = queue.next(1'000);
        ASSERT_EQ(all.size(), 120U);
        std::string sent;
        for (std::string some; !(some = queue.next(90)).empty();) {
            some.resize(std::min(some.size(), taken));
            queue.written(some.size());
            sent += some;
        }
        ASSERT_EQ(sent, all) << taken << " bytes at a time";
        EXPECT_EQ(queue.messagesWritten(), 6U);
        EXPECT_EQ(queue.waitingBytes(), 0U);
    }
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

// What a queue makes of the bytes that its peer sends.

namespace kvx::test {
namespace {

using Texts = std::vector<std::string>;

class QueueReading : public LinkFixture {
  protected:
    void SetUp() override { open(); }
    void runUntilHeard(std::size_t count) {
        runUntil([this, count] { return heard_.size() >= count || peerGone_; });
    }
    void runUntilGone() {
        runUntil([this] { return peerGone_; });
    }
};

TEST_F(QueueReading, ACloseNoticeIsAnsweredAfterTheMessagesBeforeIt) {
    peer_.sendByteByByte(data("split").message.view());
    peer_.send(wire::kKeepaliveBlock);
    peer_.send(data("last"));
    peer_.send(wire::kCloseBlock);
    peer_.send(data("never"));
    runUntilGone();
    EXPECT_EQ(heard_, (Texts{"split", "last"}));
    EXPECT_EQ(peer_.read(8), ByteVector(8, 0));
    EXPECT_TRUE(peer_.read(1).empty());
}

TEST_F(QueueReading, AnInvalidMessageIsDroppedCountedAndTraced) {
    wire::Built bad = data("bad");
    bad.message.bytes[8] = 0xFF;  // a name longer than the message
    const int level = 1;
    link::setTraceLevel(&level);
    testing::internal::CaptureStderr();
    peer_.send(bad);
    peer_.send(data("good"));
    runUntilHeard(1);
    const std::string trace = testing::internal::GetCapturedStderr();
    link::setTraceLevel(nullptr);
    EXPECT_EQ(heard_, Texts{"good"});
    EXPECT_EQ(ipq_StatisticsOf(queue_).messagesInvalid, 1U);
    EXPECT_EQ(ipq_StatisticsOf(queue_).messagesRead, 1U);
    EXPECT_NE(trace.find("invalid message"), std::string::npos);
}

TEST_F(QueueReading, AStopLeavesTheRestForTheNextRunWithoutNewInput) {
    ByteVector all;
    for (int i = 0; i < 200; ++i) {
        const wire::Built built = data(std::to_string(i));
        all.insert(all.end(), built.message.view().begin(), built.message.view().end());
    }
    onHeard_ = [this] { rvevm_Stop(manager_); };
    peer_.send(all);
    rvevm_MainLoop(manager_);
    const std::size_t first = heard_.size();
    EXPECT_GE(first * data("0").message.size(), 4096U - 200U) << "the budget was not used up";
    EXPECT_LT(first, 200U);
    onHeard_ = [] {};
    runUntilHeard(200);
    EXPECT_EQ(heard_.back(), "199");
}

TEST_F(QueueReading, ClosingInsideTheCallbackEndsTheDelivery) {
    onHeard_ = [this] {
        closeQueue();
        rvevm_Stop(manager_);
    };
    for (const char* text : {"a", "b", "c"}) peer_.send(data(text));
    rvevm_MainLoop(manager_);
    EXPECT_EQ(heard_, Texts{"a"});
    EXPECT_FALSE(peerGone_);
}

TEST_F(QueueReading, ReadingOnInsideTheCallbackLeavesItsMessageAlone) {
    const ipq_MessageCallback readOn = [](ipq_Queue queue, const wire::Envelope& message,
                                          void* closure) {
        auto* self = static_cast<QueueReading*>(closure);
        const std::string text = textIn(message.bytes);
        self->heard_.push_back(text);
        if (self->heard_.size() == 1) {
            std::thread sender([&] { self->peer_.send(data(std::string(100'000, 'n'))); });
            while (self->heard_.size() < 2) ipq_DispatchOne(queue, 10'000);
            sender.join();
        }
        EXPECT_EQ(textIn(message.bytes), text);
    };
    ipq_SetMessageCallback(queue_, readOn, this);
    peer_.send(data("outer"));
    runUntilHeard(2);
    EXPECT_EQ(heard_[0], "outer");
}

TEST_F(QueueReading, MovesToAnotherManagerWithWhatItHasReceived) {
    rvevm_Manager other = nullptr;
    rvevm_Create(&other);
    std::swap(manager_, other);
    ASSERT_EQ(ipq_MoveToManager(queue_, *this), IPQ_OK);
    peer_.send(data("here"));
    runUntilHeard(1);
    EXPECT_EQ(heard_, Texts{"here"});
    rvevm_Destroy(other);
}

TEST_F(QueueReading, ABrokenStreamOrItsEndInsideAMessageEndsTheLinkAfterWhatCameBefore) {
    for (const bool isBroken : {true, false}) {
        heard_.clear();
        peer_.send(data("sound"));
        if (isBroken) peer_.send(ByteVector{0, 0, 0, 9, 0x12, 0x34, 0x56, 0x78});
        if (!isBroken) peer_.send(data("cut short").message.view().first(20));
        peer_.close();
        runUntilGone();
        EXPECT_EQ(heard_, Texts{"sound"});
        reconnect();
        open();
    }
}

}  // namespace
}  // namespace kvx::test

// What a queue puts on the wire, and when.

namespace kvx::test {
namespace {

class QueueWriting : public LinkFixture {
  protected:
    std::string readText() {
        const ByteVector message = peer_.readMessage();
        return message.size() < 9 ? "" : textIn(message);
    }
    // Lets the peer take everything while the loop runs, and returns the texts it got.
    std::vector<std::string> drainInLoop() {
        std::vector<std::string> texts;
        std::thread reader([&] {
            for (std::string text = readText(); text != "end"; text = readText())
                texts.push_back(text);
        });
        EXPECT_TRUE(enqueue("end") || ipq_WasKept(queue_));
        runUntil([this] { return ipq_WaitingMessages(queue_) == 0; });
        reader.join();
        return texts;
    }
};

TEST_F(QueueWriting, KeepsTheOrderWhenThePeerStopsReadingAndGoesOn) {
    open();
    const std::string body(1'000, 'b');
    int sent = 0;
    while (ipq_WaitingMessages(queue_) < 500) ASSERT_TRUE(enqueue(std::to_string(sent++) + body));
    const auto texts = drainInLoop();
    ASSERT_EQ(texts.size(), static_cast<std::size_t>(sent));
    for (int i = 0; i < sent; ++i) ASSERT_EQ(texts[i], std::to_string(i) + body);
    EXPECT_GT(ipq_StatisticsOf(queue_).messagesWritten, 500U);
    EXPECT_LT(ipq_StatisticsOf(queue_).writeAttempts, static_cast<std::uint64_t>(sent) + 200U);
}

TEST_F(QueueWriting, WritesAtOnceUnlessBatchingLeavesItToTheNextEvent) {
    for (const bool isBatching : {false, true}) {
        reconnect();
        properties_.batching = isBatching ? 1 : 0;
        open();
        EXPECT_TRUE(enqueue("a"));
        EXPECT_TRUE(enqueue("b"));
        EXPECT_EQ(ipq_WaitingMessages(queue_), isBatching ? 2U : 0U);
        runUntil([this] { return ipq_WaitingMessages(queue_) == 0; });
        EXPECT_EQ(readText(), "a");
        EXPECT_EQ(readText(), "b");
        EXPECT_EQ(ipq_StatisticsOf(queue_).writeAttempts, isBatching ? 1U : 2U);
    }
}

TEST_F(QueueWriting, TheMessageLimitReportsAFailureButTheMessageWaits) {
    open({.messages = 20});
    while (enqueue(std::string(3'000, 'b'))) {
    }
    EXPECT_EQ(ipq_StateOf(queue_), IPQ_LIMIT_EXCEEDED);
    EXPECT_TRUE(ipq_WasKept(queue_));
    EXPECT_GT(ipq_StatisticsOf(queue_).messagesDropped, 0U);
}

TEST_F(QueueWriting, TheByteLimitRefusesUntilTheSocketHasTakenWhatWaits) {
    open({.bytes = 100'000});
    const std::string body(3'000, 'b');
    while (enqueue(body)) {
    }
    EXPECT_EQ(ipq_StateOf(queue_), IPQ_LIMIT_EXCEEDED);
    EXPECT_FALSE(ipq_WasKept(queue_));
    EXPECT_FALSE(drainInLoop().empty());
    EXPECT_TRUE(enqueue(body));
}

TEST_F(QueueWriting, ABrokenConnectionIsState7) {
    open();
    peer_.close();
    while (enqueue("into the void")) {
    }
    EXPECT_EQ(ipq_StateOf(queue_), IPQ_PEER_GONE);
}

TEST_F(QueueWriting, FlushEndsWithTheTimeoutOrWhenAllIsWritten) {
    open();
    while (ipq_WaitingMessages(queue_) == 0) ASSERT_TRUE(enqueue(std::string(5'000, 'b')));
    EXPECT_EQ(ipq_Flush(queue_, 1), IPQ_EMPTY);
    std::thread reader([this] { peer_.readToTheEnd(); });
    EXPECT_EQ(ipq_Flush(queue_, 10'000), IPQ_OK);
    EXPECT_EQ(ipq_WaitingBytes(queue_), 0U);
    closeQueue();
    reader.join();
}

TEST_F(QueueWriting, SilenceIsEndedByAKeepaliveOnceItLastsAMinute) {
    platform::ManualClock clock;  // the loop's waits pass at once
    open();
    rvevm_Id end = nullptr;
    rvevm_AddTimer(
        manager_, &end, 200'000,
        [](void* manager, void*, int, void*) { rvevm_Stop(static_cast<rvevm_Manager>(manager)); },
        nullptr);
    rvevm_MainLoop(manager_);
    EXPECT_EQ(ipq_StatisticsOf(queue_).messagesWritten, 2U)
        << "at 60 s and, being traffic, at 180 s";
    closeQueue();
    const ByteVector keepalive(wire::kKeepaliveBlock.begin(), wire::kKeepaliveBlock.end());
    EXPECT_EQ(peer_.readMessage(), keepalive);
    EXPECT_EQ(peer_.readMessage(), keepalive);
    EXPECT_TRUE(peer_.read(1).empty());
}

TEST_F(QueueWriting, WithoutTimersTheKeepaliveIsSentWhileWaitingForAMessage) {
    platform::ManualClock clock;
    rvevm_Destroy(std::exchange(manager_, nullptr));
    open();
    EXPECT_EQ(ipq_DispatchOne(queue_, 59'999), IPQ_EMPTY);
    EXPECT_EQ(ipq_StatisticsOf(queue_).messagesWritten, 0U);
    EXPECT_EQ(ipq_DispatchOne(queue_, 150'000), IPQ_EMPTY);
    EXPECT_EQ(clock.now(), 1'000'000 + 209'999);
    EXPECT_EQ(ipq_StatisticsOf(queue_).messagesWritten, 2U);
    const auto before = clock.now();
    ipq_Close(std::exchange(queue_, nullptr), true);
    EXPECT_EQ(clock.now() - before, 5'000) << "for a peer that stays open";
}

TEST_F(QueueWriting, AGracefulCloseFlushesSaysGoodbyeAndWaitsForThePeer) {
    open();
    std::size_t sent = 0;
    for (; ipq_WaitingMessages(queue_) < 20; ++sent) ASSERT_TRUE(enqueue(std::string(5'000, 'b')));
    std::size_t received = 0;
    std::thread reader([&] {
        received = peer_.readToTheEnd().size();  // the goodbye ends it
        peer_.send(wire::kCloseBlock);
        peer_.close();
    });
    ipq_Close(std::exchange(queue_, nullptr), true);
    reader.join();
    EXPECT_EQ(received, sent);
}

}  // namespace
}  // namespace kvx::test
