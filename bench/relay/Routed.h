#pragma once

#include <cstddef>
#include <cstdint>

#include "rv/message/WireReader.h"

/// The messages of `relay route`: the length of the whole, that of the subject, both as big-endian
/// words, the subject, and any bytes.
namespace kvx::bench::routed {

inline constexpr std::size_t kHeader = 8;             // bytes
inline constexpr std::uint32_t kListen = 0x80000000;  // beside the subject's length

}  // namespace kvx::bench::routed
