#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "rv/wire/Limits.h"

/// How two ends negotiate a link: the greeting, the parameter blocks, and the steps of both sides
/// (a block in, what to do next out).
namespace kvx::wire {

using GreetingBytes = std::array<std::uint8_t, kGreetingSize>;

/// The first 12 bytes from each side: three big-endian words.
///
/// The daemon speaks first, with the protocol version it offers; the client answers with the
/// version it wants and, in the third word, whether it reaches the daemon as a local one.
struct Greeting {
    std::uint32_t first = 0;  ///< must be 0
    std::uint32_t version = kProtocolV4;
    std::uint32_t third =
        0;  ///< client: 1 when the daemon address is local, 0 when a host was named

    bool operator==(const Greeting&) const = default;
};

[[nodiscard]] GreetingBytes encode(const Greeting& greeting);
[[nodiscard]] Greeting decodeGreeting(std::span<const std::uint8_t, kGreetingSize> bytes);

/// True when the version is 3 or 4. Does not check the first word.
[[nodiscard]] bool isKnownVersion(const Greeting& greeting);

using ParameterBytes = std::array<std::uint8_t, kParameterBlockSize>;

/// The first word of a version 4 negotiation block.
enum Command : std::uint32_t { kRefuse = 0, kAccept = 1, kPropose = 2, kCounterPropose = 3 };

/// The 64-byte block of a negotiation. All numbers are big-endian on the wire; bytes between the
/// fields are zero when encoded and ignored when decoded.
///
/// A block has two layouts. In version 4 negotiation `head` is a `Command`, and `queueType`,
/// `variant`, `firstLimit` and `secondLimit` are its arguments. In the version 3 exchange, and in
/// the block from which a queue is made, `head` is the queue type, and the limits are
/// `messageLimit`, `segmentLimit` and `firstLimit` (the byte limit).
struct ParameterBlock {
    std::uint32_t head = 0;          ///< offset 0
    std::uint32_t queueType = 0;     ///< offset 4
    std::int16_t messageLimit = 0;   ///< offset 8, messages; 0 is none
    std::uint16_t word10 = 0;        ///< offset 10
    std::uint16_t variant = 0;       ///< offset 14
    std::uint32_t segmentLimit = 0;  ///< offset 16, bytes
    std::uint32_t firstLimit = 0;    ///< offset 20, bytes
    std::uint32_t secondLimit = 0;   ///< offset 24, bytes

    bool operator==(const ParameterBlock&) const = default;
};

[[nodiscard]] ParameterBytes encode(const ParameterBlock& block);
[[nodiscard]] ParameterBlock decodeParameters(
    std::span<const std::uint8_t, kParameterBlockSize> bytes);

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
/// a limit was lowered or a proposal answered, else 1. On acceptance the queue is made from `block`
/// (`queueLimits`).
[[nodiscard]] NegotiationStep clientStep(const ParameterBlock& received);

/// Daemon, version 4: its first block.
[[nodiscard]] ParameterBlock daemonProposal();

/// Daemon, version 4: the client's answer to `daemonProposal`. Gives `Accepted` or `Refuse`; in
/// both cases `block` is to be sent.
[[nodiscard]] NegotiationStep daemonStep(const ParameterBlock& received);

/// Client, version 3: its first block.
[[nodiscard]] ParameterBlock clientBlockV3();

/// Client, version 3: true when the daemon's block agrees with the one sent.
[[nodiscard]] bool agreesV3(const ParameterBlock& sent, const ParameterBlock& received);

/// Daemon, version 3: `Accepted` with the block to send, which grants the message limit that the
/// client asked for; `Failed` for another queue type or invalid limits.
[[nodiscard]] NegotiationStep daemonStepV3(const ParameterBlock& received);

/// Limits of one end's outgoing queue.
struct QueueLimits {
    std::int32_t messages = 0;           ///< 0 is none
    std::uint32_t segment = kLinkLimit;  ///< bytes
    std::uint32_t bytes = kLinkLimit;    ///< bytes
};

/// Reads the limits of the block from which a queue is made. Returns 0; 8 for a queue type other
/// than 2; 2 for a segment limit other than `kLinkLimit` or a byte limit above it (0 counts as
/// `kLinkLimit` in both). On failure `limits` is unchanged.
[[nodiscard]] int queueLimits(const ParameterBlock& block, QueueLimits& limits);

}  // namespace kvx::wire
