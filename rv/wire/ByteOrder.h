#pragma once

#include <cstdint>
#include <span>

namespace kvx::wire {

/// A view of bytes as they came from, or go to, a link. Owns nothing.
using Bytes = std::span<const std::uint8_t>;

/// Big-endian numbers at any byte address. The caller has checked that the bytes are there.
inline std::uint16_t readBig16(const std::uint8_t* at) {
    return static_cast<std::uint16_t>((at[0] << 8) | at[1]);
}
inline std::uint32_t readBig32(const std::uint8_t* at) {
    return (std::uint32_t{at[0]} << 24) | (std::uint32_t{at[1]} << 16) |
           (std::uint32_t{at[2]} << 8) | std::uint32_t{at[3]};
}
inline void writeBig16(std::uint8_t* at, std::uint16_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 8);
    at[1] = static_cast<std::uint8_t>(value);
}
inline void writeBig32(std::uint8_t* at, std::uint32_t value) {
    writeBig16(at, static_cast<std::uint16_t>(value >> 16));
    writeBig16(at + 2, static_cast<std::uint16_t>(value));
}

}  // namespace kvx::wire
