#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "mom/mom.h"

namespace kvx::tool {

/// Records in order of arrival, and the number of byte strings that are not records.
struct Decoded {
    std::vector<std::unique_ptr<CVekBaseRecord>> records;
    std::size_t bad = 0;
};

/// The number of threads for this machine's processors, bounded per answer.
unsigned usualDecoders();

/// Decodes the packets of a whole answer, a long one on up to `threads` threads. Takes the packets
/// out of `answer`, and sets its store status as `RTDecodes` does.
Decoded decodeAnswer(CVekTransport& answer, unsigned threads = usualDecoders());

}  // namespace kvx::tool
