// The client's side of the parameter exchange: how blocks travel, and what becomes of the socket.
// The peer's blocks are sent ahead.

#include "tests/rv/link/LinkFixture.h"

namespace kvx::test {
namespace {

using wire::ParameterBlock;

class Negotiation : public LinkFixture {
  protected:
    int negotiateV4() { return ipq_NegotiateV4(&queue_, *this, std::move(pair_.near)); }
    int createV3() { return ipq_CreateV3(&queue_, *this, std::move(pair_.near)); }

    static ParameterBlock block(std::uint32_t command, std::uint32_t first = wire::kLinkLimit,
                                std::uint32_t second = wire::kLinkLimit) {
        ParameterBlock made = wire::daemonProposal();
        made.head = command;
        made.firstLimit = first;
        made.secondLimit = second;
        return made;
    }
};

TEST_F(Negotiation, LowersAndExchangesTheProposedLimitsAndAcceptsWhatNeedsNoLowering) {
    peer_.sendBlock(block(9));  // unknown, passed over
    peer_.sendBlock(block(2, 0x8000000, 0x1000));
    peer_.sendBlock(block(3, 0x1000, 0x4000001));
    peer_.sendBlock(block(3, 0x1000));
    peer_.sendBlock(block(1));
    ASSERT_EQ(negotiateV4(), IPQ_SETUP_OK);
    const ParameterBlock answer = peer_.readBlock();
    EXPECT_EQ(answer.head, 3U);
    EXPECT_EQ(answer.firstLimit, 0x1000U);
    EXPECT_EQ(answer.secondLimit, 0x4000000U);
    EXPECT_EQ(peer_.readBlock().head, 3U) << "a limit is lowered again";
    EXPECT_EQ(peer_.readBlock().head, 1U);
}

TEST_F(Negotiation, AnotherQueueTypeOrOneThatIsTooLargeGivesNoQueue) {
    peer_.sendBlock(block(1, 0x4000001));
    EXPECT_EQ(negotiateV4(), IPQ_SETUP_NO_QUEUE);
    EXPECT_EQ(queue_, nullptr);
    platform::ManualClock clock;
    const auto before = clock.now();
    std::array<ParameterBlock, 3> strange = {block(2), block(2), block(0)};
    strange[0].queueType = 3;
    strange[1].variant = 2;
    for (const ParameterBlock& one : strange) {
        reconnect();
        peer_.sendBlock(one);
        EXPECT_EQ(negotiateV4(), IPQ_SETUP_EXCHANGE_FAILED);
        if (one.head != 0) {
            EXPECT_EQ(peer_.readBlock().head, 0U);
        }
        EXPECT_TRUE(peer_.read(1).empty()) << "the socket is closed";
    }
    EXPECT_EQ(clock.now(), before) << "and waited for nothing";
}

TEST_F(Negotiation, ASilentPeerIsGivenFiveSeconds) {
    platform::ManualClock clock;
    const auto before = clock.now();
    EXPECT_EQ(negotiateV4(), IPQ_SETUP_EXCHANGE_FAILED);
    EXPECT_EQ(clock.now() - before, 5'000);
}

TEST_F(Negotiation, Version3ProposesItsLimitsAndTakesThePeersMessageLimit) {
    ParameterBlock granted = wire::clientBlockV3();
    granted.messageLimit = 3;
    peer_.sendBlock(granted);
    ASSERT_EQ(createV3(), IPQ_SETUP_OK);
    const ParameterBlock proposed = peer_.readBlock();
    EXPECT_EQ(proposed.head, 2U);
    EXPECT_EQ(proposed.messageLimit, 2'000);
    EXPECT_EQ(proposed.segmentLimit, 0x4000000U);
    while (enqueue(std::string(5'000, 'b'))) {
    }
    EXPECT_EQ(ipq_StateOf(queue_), IPQ_LIMIT_EXCEEDED);
}

TEST_F(Negotiation, Version3EndsOnDisagreementAndOnABrokenExchange) {
    ParameterBlock other = wire::clientBlockV3();
    other.head = 4;
    peer_.sendBlock(other);
    EXPECT_EQ(createV3(), IPQ_SETUP_DISAGREEMENT);
    SocketPair second;
    second.far.reset();
    EXPECT_EQ(ipq_CreateV3(&queue_, *this, std::move(second.near)), IPQ_SETUP_EXCHANGE_FAILED);
}

}  // namespace
}  // namespace kvx::test
