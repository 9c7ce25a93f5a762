// What the engine's own subjects, subscriptions and copies cost, by NATS's C client alone: the
// figures behind the choice of subjects in docs/bridge.md.

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>
#include <vector>

#include "bench/hosts/InterestBench.h"
#include "bench/hosts/NatsEnd.h"
#include "tests/support/NatsServer.h"
#include "tests/support/ProcessUsage.h"

namespace kvx::bench {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Of one connection on the first node; the second is told of each subject.
void measureSubscriptions(std::size_t count) {
    const test::NatsServer near;
    const test::NatsServer far(&near);
    NatsEnd end(near.url(), false);
    end.flush();
    const auto ownBefore = test::residentBytes(getpid());
    const auto nearBefore = test::residentBytes(near.pid());
    const auto farBefore = test::residentBytes(far.pid());
    std::vector<natsSubscription*> subscriptions(count);
    const auto begin = Clock::now();
    for (std::size_t i = 0; i < count; ++i) {
        const std::string subject = "kvx.7500.=.s.INTEREST.DEVICE" + std::to_string(i / 100) +
                                    ".PORT" + std::to_string(i % 100);
        require(natsConnection_SubscribeSync(&subscriptions[i], end.connection(), subject.c_str()));
    }
    end.flush();
    const double seconds = secondsSince(begin);
    const auto each = [count](long long before, int pid) {
        return static_cast<double>(test::residentBytes(pid) - before) / static_cast<double>(count);
    };
    std::this_thread::sleep_for(std::chrono::seconds(2));
    std::printf(
        "%zu subscriptions, each: %.1f us; resident at its node %.0f bytes, at the other "
        "node %.0f, in the client's library %.0f\n",
        count, seconds / static_cast<double>(count) * 1e6, each(nearBefore, near.pid()),
        each(farBefore, far.pid()), each(ownBefore, getpid()));
    for (natsSubscription* const subscription : subscriptions) {
        natsSubscription_Destroy(subscription);
    }
}

// One message to `count` receivers on the other node: published once on a subject that all have
// subscribed to, or once for each of them.
void measureFanOut(std::size_t count, std::size_t bytes, std::size_t messages) {
    const test::NatsServer near;
    const test::NatsServer far(&near);
    NatsEnd sender(near.url(), false);
    std::vector<std::unique_ptr<NatsEnd>> shared;
    std::vector<std::unique_ptr<NatsEnd>> single;
    for (std::size_t i = 0; i < count; ++i) {
        shared.push_back(std::make_unique<NatsEnd>(far.url(), false));
        shared.back()->listen("SHARED", static_cast<int>(bytes));
        single.push_back(std::make_unique<NatsEnd>(far.url(), false));
        single.back()->listen("SINGLE." + std::to_string(i), static_cast<int>(bytes));
    }
    for (std::size_t i = 0; i < count; ++i) {
        while (!shared[i]->isReached() || !single[i]->isReached()) {
            sender.publish("SHARED", "");
            sender.publish("SINGLE." + std::to_string(i), "");
            sender.flush();
        }
    }
    const std::string payload(bytes, 'x');
    const auto rate = [&](const std::vector<std::unique_ptr<NatsEnd>>& receivers, auto&& publish) {
        const auto begin = Clock::now();
        for (std::size_t i = 0; i < messages; ++i) publish();
        for (const auto& receiver : receivers) {
            if (receiver->await(messages) != messages) throw std::runtime_error("lost");
        }
        return static_cast<double>(messages) / secondsSince(begin);
    };
    const double once = rate(shared, [&] { sender.publish("SHARED", payload); });
    const double copies = rate(single, [&] {
        for (std::size_t i = 0; i < count; ++i) {
            sender.publish("SINGLE." + std::to_string(i), payload);
        }
    });
    std::printf("%8zu %8zu %14.0f %14.0f %8.2f %14zu %14zu\n", count, bytes, once, copies,
                once / copies, bytes, bytes * count);
}

}  // namespace

void measureChoice() {
    measureSubscriptions(100'000);
    std::printf("\nto receivers on the other node; messages/s, and bytes between the nodes\n");
    std::printf("%8s %8s %14s %14s %8s %14s %14s\n", "hosts", "bytes", "by subject", "by host",
                "ratio", "by subject", "by host");
    for (const std::size_t count :
         {std::size_t{1}, std::size_t{2}, std::size_t{4}, std::size_t{16}}) {
        measureFanOut(count, 128, 100'000 / count);
        measureFanOut(count, 8'192, 10'000 / count);
    }
}

}  // namespace kvx::bench
