// What a queue puts on the wire, and when.

#include "tests/rv/link/LinkFixture.h"

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
