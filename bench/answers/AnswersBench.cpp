// What a service is still good for when many ask for much.
//
// Baseline: a question for one row, and bulk questions of eight queriers, to a service that has
// nothing else to do. Measured: the same question beside 32 queriers that ask for a whole table
// again and again; the whole answers a second of 128 such queriers; and the question in the second
// after 256 of them were killed amid their answers. Daemon, service and queriers are separate
// processes on one machine, so the queriers' own work counts as well.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "kvx/kvx.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemon.h"
#include "tests/support/Home.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using kvx::test::ChildProcess;

constexpr int kQuestions = 300;
constexpr std::chrono::seconds kBulkTime{20};
constexpr std::chrono::seconds kBeforeTheKill{3};
constexpr const char* kRegister = "/usr/share/ieee-data/";
constexpr const char* kAll = "select * from vendors";
constexpr const char* kOne = "select * from vendors limit 1";

// `queriers` threads ask for everything for `seconds`; prints the number of whole answers.
int askForMuch(int queriers, int seconds, const std::string& daemon) {
    auto client = kvx::Client::open({.daemon = {"", "", daemon}});
    if (!client) return 1;
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    for (int i = 0; i < queriers; ++i) {
        threads.emplace_back([&] {
            while (Clock::now() < end) {
                if (client->query("Model", kAll) && Clock::now() < end) ++good;
            }
        });
    }
    std::puts("asking");
    std::fflush(stdout);
    std::this_thread::sleep_until(end);
    std::printf("good %d\n", good.load());
    std::fflush(stdout);
    client->end();
    for (std::thread& thread : threads) thread.join();
    return 0;
}

// The median of single questions, in milliseconds.
double oneRow(kvx::Client& client, int questions,
              Clock::time_point end = Clock::time_point::max()) {
    std::vector<double> times;
    while (static_cast<int>(times.size()) < questions && Clock::now() < end) {
        const auto begin = Clock::now();
        if (!client.query("Model", kOne)) std::puts("a question was not answered");
        const std::chrono::duration<double, std::milli> spent = Clock::now() - begin;
        times.push_back(spent.count());
    }
    std::ranges::sort(times);
    return times.empty() ? -1 : times[times.size() / 2];
}

class Queriers {
  public:
    Queriers(const char* self, int number, std::chrono::seconds time, const std::string& daemon)
        : process_(self, {std::to_string(number), std::to_string(time.count()), daemon}),
          seconds_(static_cast<double>(time.count())) {
        process_.awaitOutput("asking");
    }
    double goodPerSecond() {
        const std::string line = process_.awaitOutput("good");
        process_.wait();
        return line.empty() ? 0 : std::atof(line.substr(line.rfind(' ') + 1).c_str()) / seconds_;
    }
    void kill() {
        process_.kill(SIGKILL);
        process_.wait();
    }

  private:
    ChildProcess process_;
    const double seconds_;
};

void row(const char* what, double value, const char* unit, double ratio, const char* wanted) {
    std::printf("%-44s %10.2f %-10s %8.2f %s\n", what, value, unit, ratio, wanted);
    std::fflush(stdout);
}

int measure(const char* self) {
    const kvx::test::Daemon daemon;
    const kvx::test::Home home{daemon.text()};
    const kvx::test::TemporaryDirectory data;
    ChildProcess model(KVX_BIN_DIR "/modeld",
                       {"--standalone", "--db", data.file("register.db"), "--table", "vendors",
                        "--load", kRegister + std::string("oui.csv"),
                        kRegister + std::string("mam.csv"), kRegister + std::string("oui36.csv")});
    if (model.awaitError("answering").empty()) return 1;
    auto client = kvx::Client::open({.daemon = {"", "", daemon.text()}});
    if (!client) return 1;

    const double alone = oneRow(*client, kQuestions);
    row("one row, alone", alone, "ms", 1, "");
    {
        Queriers bulk(self, 32, kBulkTime, daemon.text());
        std::this_thread::sleep_for(kBeforeTheKill);
        const double beside = oneRow(*client, kQuestions, Clock::now() + kBulkTime / 2);
        row("one row, beside 32 whole tables", beside, "ms", beside / alone, "(at most 10)");
        row("  their whole answers", bulk.goodPerSecond(), "a second", 0, "");
    }
    const double few = Queriers(self, 8, kBulkTime, daemon.text()).goodPerSecond();
    row("whole tables, 8 queriers", few, "a second", 1, "");
    const double many = Queriers(self, 128, kBulkTime, daemon.text()).goodPerSecond();
    row("whole tables, 128 queriers", many, "a second", many / few, "(at least 0.5)");

    Queriers killed(self, 256, kBulkTime, daemon.text());
    std::this_thread::sleep_for(kBeforeTheKill);
    killed.kill();
    std::this_thread::sleep_for(1s);
    const double after = oneRow(*client, kQuestions, Clock::now() + 1s);
    row("one row, a second after 256 were killed", after, "ms", after / alone, "(about 1)");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    return argc == 4 ? askForMuch(std::atoi(argv[1]), std::atoi(argv[2]), argv[3])
                     : measure(argv[0]);
}
