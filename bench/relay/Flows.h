#pragma once

#include <cstddef>
#include <cstdint>

#include "bench/relay/Ends.h"

namespace kvx::bench {

/// Requests one at a time, each answered by the other thread: the median round trip, microseconds.
double roundTrip(Way way, std::uint16_t port, std::size_t size, int requests);

struct Delay {
    double p50 = 0;    // microseconds
    double p999 = 0;   // microseconds
    double worst = 0;  // microseconds
};
/// Messages at an even pace, `rate` a second: the time from before the send to the callback.
Delay oneWay(Way way, std::uint16_t port, std::size_t size, int rate, std::size_t messages);

/// Messages as fast as they are taken, with at most `kWindow` bytes on the way. One thread sends,
/// through `senders` connections in turn; another receives, on `receivers` connections.
struct Flow {
    Way way = Way::Raw;
    std::uint16_t port = 0;
    std::size_t size = 128;
    std::size_t messages = 0;
    std::size_t senders = 1;
    std::size_t receivers = 1;
    Subjects listens = {"BENCH.STREAM"};
    Subjects targets = {"BENCH.STREAM"};
};
struct FlowFigures {
    double rate = 0;         // messages received a second, each copy counted
    double receiveTime = 0;  // processor time of the receiving thread for one, microseconds
};
FlowFigures measure(const Flow& flow);

}  // namespace kvx::bench
