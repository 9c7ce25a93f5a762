// What honest sessions notice of hostile ones.
//
// Baseline: request and reply of two sessions, new sessions, a stream at full speed and one of
// 1,000 messages of 2 KB a second, with nobody else on the daemon. Measured: the same beside one
// and beside 60 clients of each kind of trouble. Daemon, troublemakers and the ends of the streams
// are separate processes on one machine, so they also take the processors from each other: how much
// that is shows the row "elsewhere", where the 60 trouble another daemon beside.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Daemon.h"
#include "tests/support/Hostile.h"
#include "tests/support/RawClient.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using kvx::test::ChildProcess;
using kvx::test::RawClient;

constexpr int kPings = 1000;
constexpr int kConnects = 100;
constexpr auto kTime = 3s;  // at most, for each figure
constexpr std::size_t kStreamed = 2000;
constexpr const char* kQuestion = "HONEST.QUESTION";
constexpr const char* kStream = "HONEST.STREAM";

double part(std::vector<double>& values, double at) {
    if (values.empty()) return -1;
    std::ranges::sort(values);
    return values[static_cast<std::size_t>(at * static_cast<double>(values.size() - 1))];
}

double millisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

// A session that hears `subject`, and says so to who waits for it.
RawClient listener(std::uint16_t port, const char* subject) {
    RawClient client = RawClient::session(port);
    client.listen(subject);
    client.settle();
    std::puts("ready");
    std::fflush(stdout);
    return client;
}

int echo(std::uint16_t port) {
    RawClient client = listener(port, kQuestion);
    while (true) {
        const std::string reply = client.expectNext().reply;
        if (!reply.empty()) client.send(kvx::test::dataMessage(reply, "yes"));
    }
}

// Numbered messages that carry their time, `rate` a second; 0: as fast as they are taken.
int source(std::uint16_t port, int rate, int seconds) {
    RawClient client = RawClient::session(port);
    const auto begin = Clock::now();
    std::string text(kStreamed, 'x');
    for (long number = 0; Clock::now() - begin < std::chrono::seconds(seconds); ++number) {
        if (rate > 0) std::this_thread::sleep_until(begin + number * 1'000'000us / rate);
        const auto time = Clock::now().time_since_epoch().count();
        const std::string head = std::to_string(number) + ' ' + std::to_string(time) + ' ';
        text.replace(0, head.size(), head);
        client.send(kvx::test::dataMessage(kStream, text));
    }
    client.send(kvx::test::dataMessage(kStream, "end"));
    return client.expectClosed() ? 0 : 1;
}

// Takes the stream to its end: "taken N lost N p99 MS seconds S".
int sink(std::uint16_t port) {
    RawClient client = listener(port, kStream);
    std::vector<double> delays;
    long last = -1;
    const auto begin = Clock::now();
    for (auto message = client.expectNext(); message.text != "end"; message = client.expectNext()) {
        long number = 0;
        long long time = 0;
        if (std::sscanf(message.text.c_str(), "%ld %lld", &number, &time) != 2) continue;
        delays.push_back(millisecondsSince(Clock::time_point(Clock::duration(time))));
        last = number;
    }
    const auto taken = static_cast<long>(delays.size());
    const double seconds = millisecondsSince(begin) / 1000;
    std::printf("taken %ld lost %ld p99 %.3f seconds %.3f\n", taken, last + 1 - taken,
                part(delays, .99), seconds);
    std::fflush(stdout);
    return 0;
}

// Until the process is killed.
int makeTrouble(const std::string& name, int clients, std::uint16_t port) {
    kvx::test::Troublemakers all(name, clients, port);
    all.step();
    std::puts("troubling");
    std::fflush(stdout);
    while (true) {
        if (!all.step()) kvx::platform::sleepMs(1);
    }
}

struct Streamed {
    long taken = 0;
    long lost = 0;
    double p99 = 0;
    double seconds = 1;
};

class Honest {
  public:
    Honest(const char* self, std::uint16_t port)
        : self_(self), port_(port), echo_(self, {"echo", std::to_string(port)}) {
        echo_.awaitOutput("ready");
    }

    std::vector<double> pings() {
        RawClient client = RawClient::session(port_);
        const std::string inbox = "HONEST.ANSWER." + std::to_string(client.localPort());
        client.listen(inbox);
        client.settle();
        return timed(kPings, [&] {
            client.send(kvx::test::dataMessage(kQuestion, "?", inbox.c_str()));
            while (client.expectText() != "yes") {
            }
        });
    }
    std::vector<double> connects() {
        return timed(kConnects, [&] { RawClient::session(port_).settle(); });
    }
    Streamed stream(int rate) {
        const std::string port = std::to_string(port_);
        ChildProcess taker(self_, {"sink", port});
        taker.awaitOutput("ready");
        const ChildProcess giver(
            self_, {"source", port, std::to_string(rate), std::to_string(kTime.count())});
        const std::string line = taker.awaitOutput("taken");
        Streamed result;
        std::sscanf(line.c_str(), "taken %ld lost %ld p99 %lf seconds %lf", &result.taken,
                    &result.lost, &result.p99, &result.seconds);
        return result;
    }

  private:
    template <class Once>
    std::vector<double> timed(int times, Once once) {
        std::vector<double> all;
        const auto end = Clock::now() + kTime;
        while (static_cast<int>(all.size()) < times && Clock::now() < end) {
            const auto begin = Clock::now();
            once();
            all.push_back(millisecondsSince(begin));
        }
        return all;
    }

    const char* const self_;
    const std::uint16_t port_;
    ChildProcess echo_;
};

// Returns messages a second of the stream at full speed.
double row(const std::string& name, int clients, const char* self, double baseline,
           bool isElsewhere = false) {
    const kvx::test::Daemon daemon;
    std::optional<kvx::test::Daemon> other;
    if (isElsewhere) other.emplace();
    Honest honest(self, daemon.port());
    std::optional<ChildProcess> trouble;
    if (clients > 0) {
        trouble.emplace(self,
                        std::vector<std::string>{"trouble", name, std::to_string(clients),
                                                 std::to_string((other ? *other : daemon).port())});
        trouble->awaitOutput("troubling");
        std::this_thread::sleep_for(1s);
    }
    std::vector<double> pings = honest.pings();
    std::vector<double> connects = honest.connects();
    const Streamed paced = honest.stream(1000);
    double rate = 0;
    if (clients < 2) {
        const Streamed fast = honest.stream(0);
        rate = static_cast<double>(fast.taken) / fast.seconds;
    }
    std::printf("%-12s %9s %9.3f %9.3f %9.3f %9.3f %6ld %9.0f %6.2f\n", name.c_str(),
                isElsewhere ? "elsewhere" : std::to_string(clients).c_str(), part(pings, .5),
                part(pings, .99), part(connects, .99), paced.p99, paced.lost, rate,
                baseline > 0 ? rate / baseline : 1);
    std::fflush(stdout);
    return rate;
}

int measure(const char* self, const char* only) {
    std::printf("%-12s %9s %9s %9s %9s %9s %6s %9s %6s\n", "beside", "", "ask p50", "ask p99",
                "new p99", "2KB p99", "lost", "2KB/s", "ratio");
    std::printf("%-12s %9s %9s %9s %9s %9s %6s %9s %6s\n", "wanted", "", "", "20 ms", "100 ms",
                "50 ms", "0", "", "0.5");
    const double baseline = row("nobody", 0, self, 0);
    for (const auto& trouble : kvx::test::troubles()) {
        if (only != nullptr && trouble.name != only) continue;
        for (const int clients : {1, 60}) row(trouble.name, clients, self, baseline);
        row(trouble.name, 60, self, baseline, true);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string role = argc > 1 ? argv[1] : "";
    const auto port = [&](int at) { return static_cast<std::uint16_t>(std::stoi(argv[at])); };
    try {
        if (role == "trouble") return makeTrouble(argv[2], std::stoi(argv[3]), port(4));
        if (role == "echo") return echo(port(2));
        if (role == "sink") return sink(port(2));
        if (role == "source") return source(port(2), std::stoi(argv[3]), std::stoi(argv[4]));
        return measure(argv[0], argc > 1 ? argv[1] : nullptr);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_hostile %s: %s\n", role.c_str(), error.what());
        return 1;
    }
}
