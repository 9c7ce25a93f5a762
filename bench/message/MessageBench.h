#pragma once

#include <cstddef>
#include <vector>

#include "bench/support/Measure.h"

namespace kvx::bench {

/// What does a message cost against a hand-written loop? The first contestant is the loop.
struct MessageQuestion {
    const char* text;
    std::vector<Contestant> contestants;
    std::size_t times;  ///< a round
};
std::vector<MessageQuestion> messageQuestions();

}  // namespace kvx::bench
