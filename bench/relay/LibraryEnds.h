#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench/relay/Figures.h"

namespace kvx::bench {

/// The two ends as programs have them: two sessions of the client library, each on a thread and an
/// event manager of its own, with the property that batches outgoing messages. Sends `payload` to
/// and fro, then one way; throws when something is lost.
Figures measureThroughLibrary(std::uint16_t port, const std::vector<std::uint8_t>& payload,
                              int requests, std::size_t messages);

}  // namespace kvx::bench
