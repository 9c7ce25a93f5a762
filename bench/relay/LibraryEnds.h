#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench/relay/Figures.h"

namespace kvx::bench {

/// Two sessions of the client library, each on its own thread and event manager, with the property
/// that batches outgoing messages. Sends `payload` to and fro, then one way; throws when a message
/// is lost.
Figures measureThroughLibrary(std::uint16_t port, const std::vector<std::uint8_t>& payload,
                              int requests, std::size_t messages);

}  // namespace kvx::bench
