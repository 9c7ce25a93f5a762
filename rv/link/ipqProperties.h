#pragma once

#include <cstdint>

/// The value of the session property "ipqProperties": how the daemon link queues.
struct ipq_Properties {
    std::int32_t batching;     ///< nonzero: messages wait for the next write event and are packed
    std::int32_t readBudget;   ///< bytes of messages taken in one readiness event
    std::int32_t segmentSize;  ///< bytes of small messages packed into one segment
};
