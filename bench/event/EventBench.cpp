// The cost of the event manager on top of the system's own wait, and of a timer.
//
// Step: one turn of the loop with one of the watched sockets ready, against a bare poll(2) over the
// same sockets and a wake-up. Timer: adding and removing one in a queue with others, against a
// std::multimap of the same size.

#include <poll.h>
#include <sys/resource.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/support/Measure.h"
#include "platform/Poll.h"
#include "platform/Socket.h"
#include "rv/event/TimerQueue.h"
#include "rv/event/rvevm.h"

namespace {

using kvx::bench::Contestant;
using kvx::event::TimerQueue;
namespace platform = kvx::platform;

constexpr std::size_t kTimes = 2'000;

// A connection with an unread byte.
struct ReadyPair {
    platform::Socket near;
    platform::Socket far;
    ReadyPair() {
        int error = 0;
        const auto listener = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
        near = platform::createTcpSocket(error);
        platform::connectSocket(near.get(), *platform::localEndpoint(listener.get()));
        far = platform::acceptTcp(listener.get(), error);
        platform::sendSome(far.get(), std::vector<std::byte>(1));
        platform::waitSocket(near.get(), platform::kReadable, platform::kForever);
    }
};

class Steps {
  public:
    explicit Steps(std::size_t sockets) {
        rvevm_Create(&manager_);
        int error = 0;
        for (std::size_t i = 1; i < sockets; ++i) {
            idle_.push_back(platform::listenTcp({platform::kLoopbackAddress, 0}, error));
            watch(idle_.back().get());
        }
        ready_ = std::make_unique<ReadyPair>();  // last: it has the highest number
        watch(ready_->near.get());
        polled_.push_back({wakeUp_.descriptor(), POLLIN, 0});
    }
    ~Steps() { rvevm_Destroy(manager_); }
    Steps(const Steps&) = delete;
    Steps& operator=(const Steps&) = delete;

    void loop(std::size_t times) {
        left_ = times;
        rvevm_MainLoop(manager_);
    }
    void poll(std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            ::poll(polled_.data(), polled_.size(), -1);
            kvx::bench::keep(polled_);
        }
    }

  private:
    void watch(int handle) {
        rvevm_Id id = nullptr;
        rvevm_AddIO(manager_, &id, static_cast<unsigned>(handle), RVEVM_READ, onReady, this);
        polled_.push_back({handle, POLLIN, 0});
    }
    static void onReady(void* manager, void* closure, int, void*) {
        if (--static_cast<Steps*>(closure)->left_ == 0) {
            rvevm_Stop(static_cast<rvevm_Manager>(manager));
        }
    }

    platform::WakeUp wakeUp_;
    std::vector<platform::Socket> idle_;
    std::unique_ptr<ReadyPair> ready_;
    std::vector<pollfd> polled_;
    rvevm_Manager manager_ = nullptr;
    std::size_t left_ = 0;
};

class Timers {
  public:
    explicit Timers(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            rvevm_Id id = nullptr;
            const unsigned long interval = nextInterval();
            queue_->add(&id, interval, onTimer, nullptr);
            map_.emplace(platform::monotonicMs() + static_cast<platform::Milliseconds>(interval),
                         onTimer);
        }
    }
    void throughQueue(std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            rvevm_Id id = nullptr;
            queue_->add(&id, nextInterval(), onTimer, nullptr);
            queue_->remove(id);
        }
    }
    void throughMap(std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            const auto interval = static_cast<platform::Milliseconds>(nextInterval());
            map_.erase(map_.emplace(platform::monotonicMs() + interval, onTimer));
        }
    }

  private:
    static void onTimer(void*, void*, int, void*) {}
    unsigned long nextInterval() { return 3'600'000 + random_() % 3'600'000; }

    std::minstd_rand random_{7};
    TimerQueue::Owner queue_ = TimerQueue::create(16, nullptr);
    std::multimap<platform::Milliseconds, rvevm_Callback> map_;
};

void allowDescriptors() {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main() {
    allowDescriptors();
    std::printf(
        "One socket is ready, the last of those watched. Each figure is the median of 31\n"
        "interleaved rounds of %zu steps, or of %zu timers added and removed.\n\n"
        "%-30s %-26s %10s %8s\n",
        kTimes, kTimes, "question", "how", "ns", "ratio");
    for (const std::size_t count : {1UL, 10UL, 100UL, 1000UL}) {
        Steps steps(count);
        std::vector<Contestant> contestants = {
            {"bare poll(2)", [&](std::size_t times) { steps.poll(times); }},
            {"a step of the loop", [&](std::size_t times) { steps.loop(times); }}};
        kvx::bench::measure(contestants, kTimes);
        kvx::bench::printRows((std::to_string(count) + " sockets").c_str(), contestants);
    }
    for (const std::size_t count : {10UL, 1000UL, 100'000UL}) {
        Timers timers(count);
        std::vector<Contestant> contestants = {
            {"std::multimap", [&](std::size_t times) { timers.throughMap(times); }},
            {"the timer queue", [&](std::size_t times) { timers.throughQueue(times); }}};
        kvx::bench::measure(contestants, kTimes);
        kvx::bench::printRows((std::to_string(count) + " timers").c_str(), contestants);
    }
    return 0;
}
