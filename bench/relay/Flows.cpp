#include "bench/relay/Flows.h"

#include <sys/prctl.h>

#include <chrono>
#include <ctime>
#include <thread>

#include "bench/support/Measure.h"

namespace kvx::bench {

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kWarmUp = 200;                      // messages before the first measured one
constexpr std::size_t kWindow = 8 * 1024 * 1024;  // bytes on the way
constexpr std::size_t kSome = 500;                // messages between looks at the window

std::int64_t nanoseconds() {
    return Clock::now().time_since_epoch() / 1ns;
}

double processorTime() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

double roundTrip(Way way, std::uint16_t port, std::size_t size, int requests) {
    const auto left = connectEnds(way, {port, size, {{"BENCH.FIRST"}}, {"BENCH.OTHER"}});
    const auto right = connectEnds(way, {port, size, {{"BENCH.OTHER"}}, {"BENCH.FIRST"}});
    const auto count = static_cast<std::size_t>(requests + kWarmUp);
    std::thread responder(
        [&] { right->receive(count, [&](const Stamp& request) { right->send(0, request); }); });
    std::vector<double> times;
    std::uint32_t number = 0;
    left->send(0, {0, number, nanoseconds()});
    left->receive(count, [&](const Stamp& reply) {
        const std::int64_t now = nanoseconds();
        times.push_back(static_cast<double>(now - reply.time) / 1e3);
        if (++number < count) left->send(0, {0, number, nanoseconds()});
    });
    responder.join();
    times.erase(times.begin(), times.begin() + kWarmUp);
    return quantile(std::move(times));
}

Delay oneWay(Way way, std::uint16_t port, std::size_t size, int rate, std::size_t messages) {
    const auto left = connectEnds(way, {port, size, {{}}, {"BENCH.STREAM"}});
    const auto right = connectEnds(way, {port, size, {{"BENCH.STREAM"}}, {}});
    std::thread sender([&] {
        prctl(PR_SET_TIMERSLACK, 1);
        const auto begin = Clock::now();
        for (std::size_t i = 0; i < messages; ++i) {
            std::this_thread::sleep_until(begin + 1'000'000'000ns / rate * i);
            left->send(0, {0, static_cast<std::uint32_t>(i), nanoseconds()});
        }
    });
    std::vector<double> times;
    times.reserve(messages);
    right->receive(messages, [&](const Stamp& stamp) {
        times.push_back(static_cast<double>(nanoseconds() - stamp.time) / 1e3);
    });
    sender.join();
    times.erase(times.begin(), times.begin() + kWarmUp);
    return {quantile(times), quantile(times, 0.999), quantile(times, 1.0)};
}

FlowFigures measure(const Flow& flow) {
    Setup from{flow.port, flow.size, std::vector<Subjects>(flow.senders), flow.targets};
    Setup to{flow.port, flow.size, std::vector<Subjects>(flow.receivers, flow.listens), {}};
    // Of several senders the relay mixes the bytes.
    const bool checksOrder = flow.way != Way::Relay || flow.senders == 1;
    const auto left = connectEnds(flow.way, from);
    const auto right = connectEnds(flow.way, to, checksOrder);
    const std::size_t each = flow.messages / flow.senders;
    const auto begin = Clock::now();
    std::thread sender([&] {
        for (std::size_t first = 0; first < each; first += kSome) {
            const std::size_t some = std::min(kSome, each - first);
            for (std::size_t i = 0; i < flow.senders; ++i) {
                left->stream(i, static_cast<std::uint32_t>(first), some);
            }
            const std::size_t sent = (first + some) * flow.senders;
            while ((sent - right->received() / flow.receivers) * flow.size > kWindow) {
                std::this_thread::sleep_for(50us);
            }
        }
    });
    const double before = processorTime();
    const std::size_t copies = each * flow.senders * flow.receivers;
    right->receive(copies);
    const double spent = processorTime() - before;
    const std::chrono::duration<double> time = Clock::now() - begin;
    sender.join();
    const auto count = static_cast<double>(copies);
    return {count / time.count(), spent / count * 1e6};
}

}  // namespace kvx::bench
