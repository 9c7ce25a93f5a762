#include "bench/relay/Ends.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace kvx::bench {

void fail(const std::string& why) {
    std::fprintf(stderr, "bench_relay: %s\n", why.c_str());
    std::_Exit(1);
}

void require(bool isDone, const char* what) {
    if (!isDone) fail(std::string("cannot ") + what);
}

std::string newSubject() {
    static std::atomic<int> number = 0;
    return "BENCH.OWN" + std::to_string(++number);
}

Ends::Ends(const Setup& setup, bool checksOrder)
    : setup_(setup),
      checksOrder_(checksOrder),
      next_(std::max<std::size_t>(1, setup.listens.size()) * kMaxSenders) {}

void Ends::receive(std::size_t count, Each each) {
    left_ = count;
    each_ = std::move(each);
    if (count > 0) run();
    each_ = {};
}

void Ends::heard(std::size_t connection, const std::uint8_t* message) {
    if (left_ == 0) fail("a message too many");
    if (checksOrder_) {
        Stamp stamp;
        std::memcpy(&stamp, message, sizeof stamp);
        std::uint32_t& next = next_[connection * kMaxSenders + stamp.sender % kMaxSenders];
        if (stamp.number != next++) fail("a message was lost, or out of order");
        if (each_) each_(stamp);
    }
    received_.store(received_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (--left_ == 0) stop();
}

std::unique_ptr<Ends> connectEnds(Way way, const Setup& setup, bool checksOrder) {
    return way == Way::Library ? connectLibrary(setup) : connectRaw(way, setup, checksOrder);
}

}  // namespace kvx::bench
