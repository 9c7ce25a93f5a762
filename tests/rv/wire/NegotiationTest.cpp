#include "rv/wire/Negotiation.h"

#include <gtest/gtest.h>

#include "rv/wire/Greeting.h"

namespace kvx::wire {
namespace {

using Action = NegotiationStep::Action;

ParameterBlock proposal(std::uint32_t firstLimit, std::uint32_t secondLimit) {
    ParameterBlock block = daemonProposal();
    block.firstLimit = firstLimit;
    block.secondLimit = secondLimit;
    return block;
}

TEST(Greeting, IsThreeBigEndianWords) {
    const Greeting answer{0, 4, 1};
    const GreetingBytes bytes = encode(answer);
    EXPECT_EQ(bytes, (GreetingBytes{0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 1}));
    EXPECT_EQ(decodeGreeting(bytes), answer);
    EXPECT_FALSE(isKnownVersion({0, 5, 0}));
    EXPECT_FALSE(isKnownVersion({0, 2, 0}));
}

TEST(ParameterBlock, HasItsNumbersAtTheirPlacesAndZeroElsewhere) {
    const ParameterBlock block{0x01020304, 0x05060708, -2,         0x0A0B,
                               0x0E0F,     0x10111213, 0x14151617, 0x18191A1B};
    ParameterBytes expected{};
    const std::vector<std::uint8_t> head = {
        1,    2,    3,    4,    5,    6,    7,    8,    0xFF, 0xFE, 0x0A, 0x0B, 0,    0,
        0x0E, 0x0F, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B};
    std::copy(head.begin(), head.end(), expected.begin());
    EXPECT_EQ(encode(block), expected);
    EXPECT_EQ(decodeParameters(expected), block);
}

TEST(NegotiationV4, ClientExchangesTheLimitsAndLowersThem) {
    const auto step = clientStep(proposal(0x8000000, 0x1000));
    EXPECT_EQ(step.action, Action::Send);
    EXPECT_EQ(step.block.head, kCounterPropose);
    EXPECT_EQ(step.block.firstLimit, 0x1000U);
    EXPECT_EQ(step.block.secondLimit, 0x4000000U);
}

TEST(NegotiationV4, ClientAcceptsACounterProposalThatNeedsNoLowering) {
    ParameterBlock counter = proposal(0x2000, 0x1000);
    counter.head = kCounterPropose;
    const auto step = clientStep(counter);
    EXPECT_EQ(step.block.head, kAccept);
    counter.secondLimit = 0x4000001;
    EXPECT_EQ(clientStep(counter).block.head, kCounterPropose);
}

TEST(NegotiationV4, ClientRefusesAnotherQueueAndIgnoresUnknownCommands) {
    ParameterBlock block = daemonProposal();
    block.queueType = 1;
    EXPECT_EQ(clientStep(block).action, Action::Refuse);
    EXPECT_EQ(clientStep(block).block.head, kRefuse);
    block = daemonProposal();
    block.variant = 2;
    EXPECT_EQ(clientStep(block).action, Action::Refuse);
    block.head = 4;
    EXPECT_EQ(clientStep(block).action, Action::Ignore);
    block.head = kRefuse;
    EXPECT_EQ(clientStep(block).action, Action::Failed);
}

TEST(NegotiationV4, BothSidesTogetherEndWithAQueueOfFullLimits) {
    const auto answer = clientStep(daemonProposal());
    const auto verdict = daemonStep(answer.block);
    ASSERT_EQ(verdict.action, Action::Accepted);
    EXPECT_EQ(verdict.block.head, kAccept);
    const auto accepted = clientStep(verdict.block);
    ASSERT_EQ(accepted.action, Action::Accepted);
    QueueLimits limits;
    EXPECT_EQ(queueLimits(accepted.block, limits), 0);
    EXPECT_EQ(limits.messages, 0);
    EXPECT_EQ(limits.bytes, kLinkLimit);
}

TEST(NegotiationV4, DaemonRefusesWhateverDiffersFromItsProposal) {
    const ParameterBlock good = clientStep(daemonProposal()).block;
    const auto refuses = [&good](auto change) {
        ParameterBlock block = good;
        change(block);
        const auto step = daemonStep(block);
        return step.action == Action::Refuse && step.block.head == kRefuse;
    };
    EXPECT_TRUE(refuses([](auto& b) { b.head = kPropose; }));
    EXPECT_TRUE(refuses([](auto& b) { b.head = kRefuse; }));
    EXPECT_TRUE(refuses([](auto& b) { b.queueType = 3; }));
    EXPECT_TRUE(refuses([](auto& b) { b.variant = 0; }));
    EXPECT_TRUE(refuses([](auto& b) { b.firstLimit = 0x3FFFFFF; }));
    EXPECT_TRUE(refuses([](auto& b) { b.secondLimit = 0; }));
}

TEST(NegotiationV3, ClientBlockIsGrantedWithItsMessageLimit) {
    const ParameterBlock sent = clientBlockV3();
    const auto step = daemonStepV3(sent);
    ASSERT_EQ(step.action, Action::Accepted);
    EXPECT_TRUE(agreesV3(sent, step.block));
    QueueLimits limits;
    EXPECT_EQ(queueLimits(step.block, limits), 0);
    EXPECT_EQ(limits.messages, 2000);
    ParameterBlock other = sent;
    other.head = 3;
    EXPECT_FALSE(agreesV3(sent, other));
    EXPECT_EQ(daemonStepV3(other).action, Action::Failed);
}

TEST(QueueLimits, TakeZeroForTheFullLimitAndRefuseOthers) {
    QueueLimits limits;
    ParameterBlock block;
    EXPECT_EQ(queueLimits(block, limits), 8);
    block.head = 2;
    EXPECT_EQ(queueLimits(block, limits), 0);
    EXPECT_EQ(limits.segment, kLinkLimit);
    EXPECT_EQ(limits.bytes, kLinkLimit);
    block.firstLimit = 4096;
    EXPECT_EQ(queueLimits(block, limits), 0);
    EXPECT_EQ(limits.bytes, 4096U);
    block.firstLimit = 0x4000001;
    EXPECT_EQ(queueLimits(block, limits), 2);
    block.firstLimit = 0;
    block.segmentLimit = 0x3FFFFFF;
    EXPECT_EQ(queueLimits(block, limits), 2);
}

}  // namespace
}  // namespace kvx::wire
