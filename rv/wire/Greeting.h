#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "rv/wire/Limits.h"

namespace kvx::wire {

using GreetingBytes = std::array<std::uint8_t, kGreetingSize>;

/// The 12 bytes that each side says first: three big-endian words.
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

/// True when the version is one that this system speaks (3 or 4). The first word is judged apart.
[[nodiscard]] bool isKnownVersion(const Greeting& greeting);

}  // namespace kvx::wire
