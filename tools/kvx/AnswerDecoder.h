#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "mom/mom.h"

namespace kvx::tool {

/// Records in the order in which they came, and how many byte strings were no records.
struct Decoded {
    std::vector<std::unique_ptr<CVekBaseRecord>> records;
    std::size_t bad = 0;
};

/// As many threads as the machine has processors, but never many for one answer.
unsigned usualDecoders();

/// Decodes the packets of a whole answer, a long one on `threads` threads at once. Leaves `answer`
/// without packets and with the store status that `RTDecodes` would have left.
Decoded decodeAnswer(CVekTransport& answer, unsigned threads = usualDecoders());

}  // namespace kvx::tool
