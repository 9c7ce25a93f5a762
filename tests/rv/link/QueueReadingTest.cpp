// What a queue makes of the bytes that its peer sends.

#include "tests/rv/link/LinkFixture.h"

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
    const ipq_MessageCallback readOn = [](ipq_Queue queue, wire::Bytes message, void* closure) {
        auto* self = static_cast<QueueReading*>(closure);
        const std::string text = textIn(message);
        self->heard_.push_back(text);
        if (self->heard_.size() == 1) {
            std::thread sender([&] { self->peer_.send(data(std::string(100'000, 'n'))); });
            while (self->heard_.size() < 2) ipq_DispatchOne(queue, 10'000);
            sender.join();
        }
        EXPECT_EQ(textIn(message), text);
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
