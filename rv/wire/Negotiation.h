#pragma once

#include <cstdint>

#include "rv/wire/ParameterBlock.h"

/// The steps of both sides while the queue of a link is settled: a block in, what to do out.
namespace kvx::wire {

struct NegotiationStep {
    enum class Action {
        Send,      ///< send `block` and read the next one
        Accepted,  ///< make the queue: client from `block`; daemon sends `block` first
        Refuse,    ///< send `block` (command 0); the negotiation has failed
        Failed,    ///< send nothing; the negotiation has failed
        Ignore     ///< send nothing and read the next block
    };
    Action action = Action::Failed;
    ParameterBlock block;
};

/// Client, version 4: one block of the daemon. Proposals are answered with both limits clamped to
/// `kLinkLimit` and exchanged, since what one side sends the other receives; the command is 3 when
/// a limit was lowered or a proposal answered, else 1. On acceptance `block` is the one to make
/// the queue from (`queueLimits`).
[[nodiscard]] NegotiationStep clientStep(const ParameterBlock& received);

/// Daemon, version 4: the block it opens with.
[[nodiscard]] ParameterBlock daemonProposal();

/// Daemon, version 4: the client's answer to `daemonProposal`. Gives `Accepted` or `Refuse`; in
/// both cases `block` is to be sent.
[[nodiscard]] NegotiationStep daemonStep(const ParameterBlock& received);

/// Client, version 3: the block it opens with.
[[nodiscard]] ParameterBlock clientBlockV3();

/// Client, version 3: true when the daemon's block agrees with the one sent.
[[nodiscard]] bool agreesV3(const ParameterBlock& sent, const ParameterBlock& received);

/// Daemon, version 3: `Accepted` with the block to send, which grants the message limit that the
/// client asked for; `Failed` for another queue type or limits that no queue would take.
[[nodiscard]] NegotiationStep daemonStepV3(const ParameterBlock& received);

/// Limits of one end's outgoing queue.
struct QueueLimits {
    std::int32_t messages = 0;           ///< 0 is none
    std::uint32_t segment = kLinkLimit;  ///< bytes
    std::uint32_t bytes = kLinkLimit;    ///< bytes
};

/// Reads the limits out of the block from which a queue is made. Returns 0; 8 for a queue type
/// other than 2; 2 for a segment limit other than `kLinkLimit` or a byte limit above it (0 counts
/// as `kLinkLimit` in both). On failure `limits` is left alone.
[[nodiscard]] int queueLimits(const ParameterBlock& block, QueueLimits& limits);

}  // namespace kvx::wire
