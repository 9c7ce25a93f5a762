#include "rv/wire/Negotiation.h"

namespace kvx::wire {
namespace {

using Action = NegotiationStep::Action;

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

TEST(NegotiationV3, OnlyTheClientsOwnBlockIsGranted) {
    ParameterBlock other = clientBlockV3();
    EXPECT_TRUE(agreesV3(other, daemonStepV3(other).block));
    other.head = 3;
    EXPECT_FALSE(agreesV3(clientBlockV3(), other));
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
