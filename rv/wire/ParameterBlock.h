#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "rv/wire/Limits.h"

namespace kvx::wire {

using ParameterBytes = std::array<std::uint8_t, kParameterBlockSize>;

/// What the first word of a version 4 negotiation block asks for.
enum Command : std::uint32_t { kRefuse = 0, kAccept = 1, kPropose = 2, kCounterPropose = 3 };

/// The 64 bytes in which two ends of a link settle their queue. All numbers are big-endian on the
/// wire; bytes between the fields are zero when encoded and ignored when decoded.
///
/// A block has two readings. In version 4 negotiation `head` is a `Command`, `queueType`,
/// `variant`, `firstLimit` and `secondLimit` say the rest. In the version 3 exchange, and in the
/// block from which a queue is made, `head` is the queue type, and the limits stand at
/// `messageLimit`, `segmentLimit` and `firstLimit` (there the byte limit).
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

}  // namespace kvx::wire
