#pragma once

#include <cstdint>
#include <span>

namespace kvx::wire {

/// A view of bytes as they came from, or go to, a link. Owns nothing.
using Bytes = std::span<const std::uint8_t>;

}  // namespace kvx::wire
