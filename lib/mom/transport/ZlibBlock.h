#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "mom/transport/TransportPacket.h"
#include "mom/transport/TransportPayload.h"

namespace kvx::transport {

/// The block of a plain payload as a zlib stream. Without memory its `data` is null. Any thread.
[[nodiscard]] SVekTransPayload deflated(const SVekTransPayload& plain);

/// Inflates a zlib stream that has exactly `out.size()` bytes. False for any other, and without
/// memory; `out` is undefined then. Any thread.
[[nodiscard]] KVX_API bool inflateWhole(packet::Bytes stream, std::span<unsigned char> out);

/// Traces that so many bytes were packed into so many.
void traceDeflated(std::size_t from, std::size_t to);

}  // namespace kvx::transport
