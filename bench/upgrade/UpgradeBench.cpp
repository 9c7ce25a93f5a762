// What do sessions notice when the daemon is replaced a hundred times beneath them? Two sessions of
// the client library carry an even stream; a message that is lost, doubled or out of order ends the
// program.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/relay/Ends.h"
#include "bench/relay/Flows.h"
#include "bench/support/Broker.h"
#include "bench/support/Measure.h"

namespace kvx::bench {
namespace {

using namespace std::chrono_literals;

constexpr int kRate = 50'000;  // messages a second
constexpr std::size_t kSize = 128;
constexpr std::size_t kMessages = 100'000;  // of one flow
constexpr auto kPause = 50ms;               // between two upgrades
constexpr std::size_t kListens = 100;       // of each idle session

// The daemon that runs now is the only child of this process.
pid_t onlyChild() {
    pid_t child = 0;
    const auto path = "/proc/self/task/" + std::to_string(getpid()) + "/children";
    while (!(std::ifstream(path) >> child)) std::this_thread::sleep_for(1ms);
    return child;
}

// Milliseconds from asking until the old one has ended, at which the new one serves.
double upgrade(pid_t& daemon) {
    const auto begin = std::chrono::steady_clock::now();
    require(kill(daemon, SIGUSR2) == 0, "signal the daemon");
    const auto hasEnded = [daemon] { return waitpid(daemon, nullptr, WNOHANG) == daemon; };
    while (!hasEnded()) {
        const auto now = std::chrono::steady_clock::now();
        if (now - begin > 30s) fail("the daemon was not replaced");
        std::this_thread::sleep_for(200us);
    }
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
    daemon = onlyChild();
    return time.count();
}

std::vector<IdleSession> idleSessions(std::uint16_t port, std::size_t count) {
    std::vector<IdleSession> sessions;
    for (std::size_t i = 0; i < count; ++i) {
        Subjects subjects;
        for (std::size_t n = 0; n < kListens; ++n) subjects.push_back(newSubject());
        sessions.emplace_back(port, subjects);
    }
    return sessions;
}

struct Delays {
    std::vector<double> p50, p999, worst;
    void add(const Delay& delay) {
        p50.push_back(delay.p50);
        p999.push_back(delay.p999);
        worst.push_back(delay.worst);
    }
    void print(const char* name) const {
        std::printf("%-24s %10.1f %10.1f %12.1f   %zu\n", name, quantile(p50), quantile(p999),
                    quantile(worst, 1.0), worst.size() * kMessages);
    }
};

void run(std::size_t upgrades, std::size_t sessions) {
    std::printf(
        "%zu upgrades, one %lld ms after the other, of a daemon with %zu idle sessions of %zu "
        "listens\n"
        "each, while %d messages of %zu bytes a second go from one session of the library to\n"
        "another. Every message must come once, in order. Delays from before the send to the\n"
        "callback, in microseconds.\n\n",
        upgrades, static_cast<long long>(kPause.count()), sessions, kListens, kRate, kSize);
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // the successors are ours
    const Broker broker(KVX_RVD_PROGRAM " -q -listen tcp:0");
    pid_t daemon = broker.pid();
    const std::vector<IdleSession> idle = idleSessions(broker.port(), sessions);
    Delays still;
    Delays upgraded;
    const auto flow = [&](Delays& delays) {
        delays.add(oneWay(Way::Library, broker.port(), kSize, kRate, kMessages));
    };
    for (int i = 0; i < 5; ++i) flow(still);
    std::vector<double> times;
    std::atomic<bool> isOver = false;
    std::thread operating([&] {
        while (times.size() < upgrades) {
            times.push_back(upgrade(daemon));
            std::this_thread::sleep_for(kPause);
        }
        isOver = true;
    });
    while (!isOver) flow(upgraded);
    operating.join();
    std::printf("%-24s %10s %10s %12s   %s\n", "", "p50", "p99.9", "worst", "messages");
    still.print("without");
    upgraded.print("with upgrades");
    std::printf("\n%zu upgrades: median %.1f ms, longest %.1f ms; lost, doubled or disordered: 0\n",
                times.size(), quantile(times), quantile(times, 1.0));
    kill(daemon, SIGKILL);
    waitpid(daemon, nullptr, 0);
}

}  // namespace
}  // namespace kvx::bench

int main(int argc, char** argv) {
    kvx::bench::run(argc > 1 ? std::stoul(argv[1]) : 100, argc > 2 ? std::stoul(argv[2]) : 0);
    return 0;
}
