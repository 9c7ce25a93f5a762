// Negotiating a link.
//
// The daemon greets with the version it offers, the client with the one it wants. In version 4 the
// daemon then proposes limits and the client answers, block by block, until one side accepts or
// refuses; in version 3 the client sends one block and the daemon one back.

#include "rv/wire/Negotiation.h"

#include <algorithm>

#include "rv/error/rvCodes.h"

namespace kvx::wire {
namespace {

// Offsets of the fields of a block.
constexpr std::size_t kHeadAt = 0;
constexpr std::size_t kQueueTypeAt = 4;
constexpr std::size_t kMessageLimitAt = 8;
constexpr std::size_t kWord10At = 10;
constexpr std::size_t kVariantAt = 14;
constexpr std::size_t kSegmentLimitAt = 16;
constexpr std::size_t kFirstLimitAt = 20;
constexpr std::size_t kSecondLimitAt = 24;

using Action = NegotiationStep::Action;

bool isOurQueue(const ParameterBlock& block) {
    return block.queueType == kQueueType && block.variant == kQueueVariant;
}

NegotiationStep refuse(ParameterBlock block) {
    block.head = kRefuse;
    return {Action::Refuse, block};
}

// The block of an accepted version 4 negotiation, in the layout from which a queue is made.
ParameterBlock queueBlock(const ParameterBlock& accepted) {
    ParameterBlock block;
    block.head = accepted.queueType;
    block.word10 = accepted.variant;
    block.segmentLimit = accepted.firstLimit;
    block.firstLimit = accepted.secondLimit;
    return block;
}

NegotiationStep answerProposal(const ParameterBlock& received) {
    if (!isOurQueue(received)) return refuse(received);
    ParameterBlock answer = received;
    answer.firstLimit = std::min(received.secondLimit, kLinkLimit);
    answer.secondLimit = std::min(received.firstLimit, kLinkLimit);
    const bool lowered = received.firstLimit > kLinkLimit || received.secondLimit > kLinkLimit;
    answer.head = lowered || received.head == kPropose ? kCounterPropose : kAccept;
    return {Action::Send, answer};
}

}  // namespace

GreetingBytes encode(const Greeting& greeting) {
    GreetingBytes bytes{};
    std::uint8_t* words = bytes.data();
    storeBig32(words, greeting.first);
    storeBig32(words + 4, greeting.version);
    storeBig32(words + 8, greeting.third);
    return bytes;
}

Greeting decodeGreeting(std::span<const std::uint8_t, kGreetingSize> bytes) {
    const std::uint8_t* words = bytes.data();
    return {loadBig32(words), loadBig32(words + 4), loadBig32(words + 8)};
}

bool isKnownVersion(const Greeting& greeting) {
    return greeting.version == kProtocolV3 || greeting.version == kProtocolV4;
}

ParameterBytes encode(const ParameterBlock& block) {
    ParameterBytes bytes{};
    storeBig32(&bytes[kHeadAt], block.head);
    storeBig32(&bytes[kQueueTypeAt], block.queueType);
    storeBig16(&bytes[kMessageLimitAt], static_cast<std::uint16_t>(block.messageLimit));
    storeBig16(&bytes[kWord10At], block.word10);
    storeBig16(&bytes[kVariantAt], block.variant);
    storeBig32(&bytes[kSegmentLimitAt], block.segmentLimit);
    storeBig32(&bytes[kFirstLimitAt], block.firstLimit);
    storeBig32(&bytes[kSecondLimitAt], block.secondLimit);
    return bytes;
}

ParameterBlock decodeParameters(std::span<const std::uint8_t, kParameterBlockSize> bytes) {
    ParameterBlock block;
    block.head = loadBig32(&bytes[kHeadAt]);
    block.queueType = loadBig32(&bytes[kQueueTypeAt]);
    block.messageLimit = static_cast<std::int16_t>(loadBig16(&bytes[kMessageLimitAt]));
    block.word10 = loadBig16(&bytes[kWord10At]);
    block.variant = loadBig16(&bytes[kVariantAt]);
    block.segmentLimit = loadBig32(&bytes[kSegmentLimitAt]);
    block.firstLimit = loadBig32(&bytes[kFirstLimitAt]);
    block.secondLimit = loadBig32(&bytes[kSecondLimitAt]);
    return block;
}

NegotiationStep clientStep(const ParameterBlock& received) {
    switch (received.head) {
        case kRefuse:
            return {Action::Failed, received};
        case kAccept:
            return {Action::Accepted, queueBlock(received)};
        case kPropose:
        case kCounterPropose:
            return answerProposal(received);
        default:
            return {Action::Ignore, received};
    }
}

ParameterBlock daemonProposal() {
    ParameterBlock block;
    block.head = kPropose;
    block.queueType = kQueueType;
    block.variant = kQueueVariant;
    block.firstLimit = kLinkLimit;
    block.secondLimit = kLinkLimit;
    return block;
}

NegotiationStep daemonStep(const ParameterBlock& received) {
    const bool agrees = (received.head == kAccept || received.head == kCounterPropose) &&
                        isOurQueue(received) && received.firstLimit == kLinkLimit &&
                        received.secondLimit == kLinkLimit;
    if (!agrees) return refuse(daemonProposal());
    ParameterBlock accepted = daemonProposal();
    accepted.head = kAccept;
    return {Action::Accepted, accepted};
}

ParameterBlock clientBlockV3() {
    ParameterBlock block;
    block.head = kQueueType;
    block.messageLimit = kV3MessageLimit;
    block.word10 = kV3Word;
    block.segmentLimit = kLinkLimit;
    block.firstLimit = kLinkLimit;
    return block;
}

bool agreesV3(const ParameterBlock& sent, const ParameterBlock& received) {
    return sent.head == received.head;
}

NegotiationStep daemonStepV3(const ParameterBlock& received) {
    QueueLimits limits;
    if (queueLimits(received, limits) != queue_code::kOk) return {Action::Failed, received};
    ParameterBlock answer = clientBlockV3();
    answer.messageLimit = received.messageLimit;
    return {Action::Accepted, answer};
}

int queueLimits(const ParameterBlock& block, QueueLimits& limits) {
    if (block.head != kQueueType) return queue_code::kWrongType;
    const std::uint32_t segment = block.segmentLimit == 0 ? kLinkLimit : block.segmentLimit;
    const std::uint32_t bytes = block.firstLimit == 0 ? kLinkLimit : block.firstLimit;
    if (segment != kLinkLimit || bytes > kLinkLimit) return queue_code::kBadLimit;
    limits = {std::max<std::int32_t>(block.messageLimit, 0), segment, bytes};
    return queue_code::kOk;
}

}  // namespace kvx::wire
