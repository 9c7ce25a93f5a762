#include "rv/wire/Negotiation.h"

#include <algorithm>

namespace kvx::wire {
namespace {

constexpr int kQueueOk = 0;
constexpr int kBadLimit = 2;      // queue-transport table
constexpr int kBadQueueType = 8;  // queue-transport table

using Action = NegotiationStep::Action;

bool isOurQueue(const ParameterBlock& block) {
    return block.queueType == kQueueType && block.variant == kQueueVariant;
}

NegotiationStep refuse(ParameterBlock block) {
    block.head = kRefuse;
    return {Action::Refuse, block};
}

// The block of an accepted version 4 negotiation, in the reading from which a queue is made.
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
    if (queueLimits(received, limits) != kQueueOk) return {Action::Failed, received};
    ParameterBlock answer = clientBlockV3();
    answer.messageLimit = received.messageLimit;
    return {Action::Accepted, answer};
}

int queueLimits(const ParameterBlock& block, QueueLimits& limits) {
    if (block.head != kQueueType) return kBadQueueType;
    const std::uint32_t segment = block.segmentLimit == 0 ? kLinkLimit : block.segmentLimit;
    const std::uint32_t bytes = block.firstLimit == 0 ? kLinkLimit : block.firstLimit;
    if (segment != kLinkLimit || bytes > kLinkLimit) return kBadLimit;
    limits = {std::max<std::int32_t>(block.messageLimit, 0), segment, bytes};
    return kQueueOk;
}

}  // namespace kvx::wire
