// bench_relay: how fast is the bus, through the client library and raw, against two baselines that
// do the least of the same work (relay.cpp)?
//
//   bench_relay [all | NAME...] [ROUNDS]     the table, or these questions of it
//   bench_relay curves                       many sessions and listens beside one stream
//
// All brokers run as processes of their own, on the loopback; the two ends are threads of this
// process. In every round the baseline and the contestant run in turn, under the same state of the
// machine. A figure is the median over the rounds, a ratio the median of the rounds' ratios. Every
// message carries its number, and every receiver checks it: a loss ends the program.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "bench/message/MessageBench.h"
#include "bench/relay/Flows.h"
#include "bench/relay/SystemCalls.h"
#include "bench/support/Broker.h"
#include "platform/Process.h"
#include "tests/support/ProcessUsage.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::bench {
namespace {

constexpr char kRvd[] = KVX_RVD_PROGRAM " -q -listen tcp:0";
constexpr char kRelay[] = KVX_RELAY_PROGRAM " copy 1 1";
constexpr char kRouter[] = KVX_RELAY_PROGRAM " route";
constexpr int kRequests = 3'000;  // a round
constexpr int kRate = 20'000;     // messages a second
constexpr std::size_t kPaced = 30'000;
constexpr std::size_t kMessages = 500'000;  // of a stream
constexpr std::size_t kIdle = 1'000;        // sessions

class Row {
  public:
    Row(std::string question, std::string asked, int digits = 1)
        : question_(std::move(question)), asked_(std::move(asked)), digits_(digits) {}

    void add(double ours, double baseline = 0) {
        ours_.push_back(ours);
        baseline_.push_back(baseline);
        ratio_.push_back(baseline == 0 ? 0 : ours / baseline);
    }

    static void printHead() {
        std::printf("%-54s %12s %12s %7s  %s\n", "question", "ours", "baseline", "ratio", "asked");
    }
    void print() const {
        std::printf("%-54s %12.*f", question_.c_str(), digits_, quantile(ours_));
        if (quantile(baseline_) == 0) {
            std::printf(" %12s %7s", "-", "-");
        } else {
            std::printf(" %12.*f %7.2f", digits_, quantile(baseline_), quantile(ratio_));
        }
        std::printf("  %s\n", asked_.c_str());
        std::fflush(stdout);
    }

  private:
    std::string question_;
    std::string asked_;
    int digits_;  // after the point
    std::vector<double> ours_;
    std::vector<double> baseline_;
    std::vector<double> ratio_;
};

void askRoundTrip(int rounds) {
    const Broker relay(kRelay);
    const Broker rvd(kRvd);
    Row row("request and reply, 128 bytes, library: p50, us", "1.02");
    for (int i = 0; i < rounds; ++i) {
        const double baseline = roundTrip(Way::Relay, relay.port(), 128, kRequests);
        row.add(roundTrip(Way::Library, rvd.port(), 128, kRequests), baseline);
    }
    row.print();
}

void askDelay(int rounds) {
    const Broker relay(kRelay);
    const Broker rvd(kRvd);
    Row half("one way at 20,000/s, 128 bytes, library: p50, us", "1.00");
    Row most("the same: p99.9, us", "0.9");
    for (int i = 0; i < rounds; ++i) {
        const Delay baseline = oneWay(Way::Relay, relay.port(), 128, kRate, kPaced);
        const Delay ours = oneWay(Way::Library, rvd.port(), 128, kRate, kPaced);
        half.add(ours.p50, baseline.p50);
        most.add(ours.p999, baseline.p999);
    }
    half.print();
    most.print();
}

// The same flow through two brokers.
void compareRates(int rounds, Row row, Flow ours, Flow baseline, const std::string& broker) {
    const Broker other(broker);
    const Broker rvd(kRvd);
    ours.port = rvd.port();
    baseline.port = other.port();
    for (int i = 0; i < rounds; ++i) {
        const double rate = measure(baseline).rate;
        row.add(measure(ours).rate, rate);
    }
    row.print();
}

void askStreams(int rounds) {
    const std::tuple<std::size_t, std::size_t, const char*> sizes[] = {
        {16, 2 * kMessages, "0.20"},
        {128, kMessages, "0.35"},
        {1'024, kMessages / 4, "0.85"},
        {8'192, kMessages / 20, "1.0"}};
    for (const auto& [size, messages, asked] : sizes) {
        Flow ours;
        ours.way = Way::Library;
        ours.size = size;
        ours.messages = messages;
        Flow baseline = ours;
        baseline.way = Way::Relay;
        compareRates(rounds,
                     {"stream, " + std::to_string(size) + " bytes, library: messages/s", asked, 0},
                     ours, baseline, kRelay);
    }
}

void askRaw(int rounds) {
    Flow ours;
    ours.messages = 2 * kMessages;
    Flow baseline = ours;
    baseline.way = Way::Router;
    compareRates(rounds, {"stream, 128 bytes, raw, of the router's: messages/s", "0.65", 0}, ours,
                 baseline, kRouter);
}

void askFans(int rounds) {
    Flow ours;
    ours.way = Way::Library;
    ours.messages = kMessages / 5;
    ours.receivers = 10;
    Flow baseline = ours;
    baseline.way = Way::Relay;
    compareRates(rounds, {"1 to 10, 128 bytes, library: copies/s", "0.45", 0}, ours, baseline,
                 KVX_RELAY_PROGRAM " copy 1 10");
    std::swap(ours.senders, ours.receivers);
    std::swap(baseline.senders, baseline.receivers);
    ours.messages = baseline.messages = kMessages;
    compareRates(rounds, {"10 to 1, 128 bytes, library: messages/s", "0.30", 0}, ours, baseline,
                 KVX_RELAY_PROGRAM " copy 10 1");
}

std::string numbered(const char* prefix, std::size_t number, const char* suffix = "") {
    const std::string digits = std::to_string(100'000 + number);
    return prefix + digits.substr(1) + suffix;
}

// One session listens to 10,000 subjects, each of which one of its 100 patterns matches as well.
void askSubjects(int rounds) {
    Flow one;
    one.messages = 2 * kMessages;
    Flow many = one;
    many.listens = many.targets = {};
    for (std::size_t i = 0; i < 10'000; ++i) {
        const std::string group = numbered("BENCH.G", i / 100);
        many.targets.push_back(numbered((group + ".S").c_str(), i));
        if (i % 100 == 0) many.listens.push_back(group + ".*");
    }
    many.listens.insert(many.listens.end(), many.targets.begin(), many.targets.end());
    const Broker rvd(kRvd);
    one.port = many.port = rvd.port();
    Row row("10,000 subjects, 100 patterns, raw, of one: messages/s", "0.80", 0);
    for (int i = 0; i < rounds; ++i) {
        const double rate = measure(one).rate;
        row.add(measure(many).rate, rate);
    }
    row.print();
}

void askMemory(int rounds) {
    Row row("memory of an idle session with one listen: bytes", "1024", 0);
    for (int round = 0; round < rounds; ++round) {
        const Broker rvd(kRvd);
        std::vector<IdleSession> sessions;
        sessions.emplace_back(rvd.port(), Subjects{"BENCH.FIRST"});
        const auto before = test::residentBytes(rvd.pid());
        for (std::size_t i = 0; i < kIdle; ++i) {
            sessions.emplace_back(rvd.port(), Subjects{numbered("BENCH.IDLE", i)});
        }
        const auto grown = test::residentBytes(rvd.pid()) - before;
        row.add(static_cast<double>(grown) / static_cast<double>(kIdle));
    }
    row.print();
}

void askReceiver(int rounds) {
    const Broker rvd(kRvd);
    Flow ours;
    ours.port = rvd.port();
    ours.messages = kMessages;
    Flow baseline = ours;
    ours.way = Way::Library;
    Row row("processor time of the receiver, 128 bytes, library: us", "0.10 us", 3);
    for (int i = 0; i < rounds; ++i) {
        const double time = measure(baseline).receiveTime;
        row.add(measure(ours).receiveTime, time);
    }
    row.print();
}

void askMessages(int /*rounds*/) {
    constexpr const char* kAsked[] = {"0.9", "1.1", "1.0", "-", "-"};
    std::size_t number = 0;
    for (MessageQuestion& question : messageQuestions()) {
        auto& ways = question.contestants;
        measure(ways, question.times);
        for (std::size_t i = ways.size() > 1 ? 1 : 0; i < ways.size(); ++i) {
            Row row(question.text + (": " + ways[i].name) + ", ns", i < 2 ? kAsked[number] : "-");
            row.add(ways[i].nanoseconds, i == 0 ? 0 : ways[0].nanoseconds);
            row.print();
        }
        ++number;
    }
}

void askCalls(int rounds) {
    const Broker rvd(kRvd);
    Flow flow;
    flow.port = rvd.port();
    flow.messages = 2 * kMessages;
    Row row("system calls of the daemon a message, 128 bytes, raw", "0.003", 4);
    for (int i = 0; i < rounds; ++i) {
        const SystemCalls calls(rvd.pid());
        if (calls.count() < 0) return void(std::puts("system calls cannot be counted here"));
        measure(flow);
        row.add(static_cast<double>(calls.count()) / static_cast<double>(flow.messages));
    }
    row.print();
}

// The same stream through a daemon that records it and through one that does not. The figure asked
// is of a recording in memory: TMPDIR=/dev/shm.
void askRecorder(int rounds) {
    const std::tuple<const char*, Way, std::size_t, std::size_t> streams[] = {
        {"128 bytes, raw", Way::Raw, 128, 2 * kMessages},
        {"128 bytes, library", Way::Library, 128, kMessages},
        {"1024 bytes, library", Way::Library, 1'024, kMessages / 4},
        {"8192 bytes, library", Way::Library, 8'192, kMessages / 10}};
    for (const auto& [what, way, size, messages] : streams) {
        const test::TemporaryDirectory directory;
        const Broker plain(kRvd);
        const Broker recording(std::string(kRvd) + " -recorder 64M -recorder-file " +
                               directory.file("ring"));
        Flow without;
        without.way = way;
        without.size = size;
        without.messages = messages;
        without.port = plain.port();
        Flow with = without;
        with.port = recording.port();
        Row row(std::string("recorded, ") + what + ", of not recorded: messages/s", "0.95", 0);
        for (int i = 0; i < rounds; ++i) {
            const double rate = measure(without).rate;
            row.add(measure(with).rate, rate);
        }
        row.print();
    }
}

// One stream beside sessions and listens that its messages do not touch.
class Crowd {
  public:
    double rateBeside(std::size_t sessions, std::size_t listens) {
        while (idle_.size() < sessions) {
            const auto missing = static_cast<double>(listens - made_);
            const auto some = static_cast<std::size_t>(
                missing / static_cast<double>(sessions - idle_.size()) + 0.5);
            Subjects subjects;
            for (std::size_t i = 0; i < some; ++i) subjects.push_back(next());
            idle_.emplace_back(rvd_.port(), subjects);
        }
        Flow flow;
        flow.port = rvd_.port();
        flow.messages = kMessages;
        return measure(flow).rate;
    }

  private:
    std::string next() {
        ++made_;
        return "BENCH.CROWD." + std::to_string(made_ % 1'000) + "." + std::to_string(made_);
    }

    const Broker rvd_{kRvd};
    std::vector<IdleSession> idle_;
    std::size_t made_ = 0;
};

void drawCurve(const char* what, int rounds,
               const std::vector<std::pair<std::size_t, std::size_t>>& points) {
    std::vector<Row> rows;
    std::vector<Crowd> crowds(points.size());
    for (const auto& [sessions, listens] : points) {
        rows.emplace_back(std::to_string(sessions) + " sessions, " + std::to_string(listens) +
                              " listens: " + what,
                          "1", 0);
    }
    for (int round = 0; round < rounds; ++round) {
        double first = 0;
        for (std::size_t i = 0; i < points.size(); ++i) {
            const double rate = crowds[i].rateBeside(points[i].first, points[i].second);
            if (i == 0) first = rate;
            rows[i].add(rate, first);
        }
    }
    for (const Row& row : rows) row.print();
}

void askCurves(int rounds) {
    drawCurve("messages/s", rounds,
              {{1, 1}, {10, 10}, {100, 100}, {1'000, 1'000}, {10'000, 10'000}});
    drawCurve("messages/s", rounds, {{10, 10}, {10, 1'000}, {10, 100'000}, {10, 1'000'000}});
}

struct Question {
    const char* name;
    void (*ask)(int rounds);
};
constexpr Question kTable[] = {
    {"request", askRoundTrip}, {"delay", askDelay},       {"stream", askStreams},
    {"raw", askRaw},           {"fan", askFans},          {"subjects", askSubjects},
    {"memory", askMemory},     {"receiver", askReceiver}, {"message", askMessages},
    {"calls", askCalls},       {"recorder", askRecorder}};

void run(const std::vector<std::string>& names, int rounds) {
    std::printf(
        "# %d rounds, contestants in turn; figures: medians; ratios: median of the rounds'\n",
        rounds);
    Row::printHead();
    for (const std::string& name : names) {
        bool isKnown = name == "all";
        for (const auto& [known, ask] : kTable) {
            if (name != known && name != "all") continue;
            isKnown = true;
            ask(rounds);
        }
        if (name == "curves") {
            askCurves(rounds);
        } else if (!isKnown) {
            fail("no question " + name);
        }
    }
}

}  // namespace
}  // namespace kvx::bench

int main(int argc, char** argv) {
    std::vector<std::string> names(argv + 1, argv + argc);
    int rounds = 7;
    if (!names.empty() && std::atoi(names.back().c_str()) > 0) {
        rounds = std::atoi(names.back().c_str());
        names.pop_back();
    }
    if (names.empty()) names = {"all"};
    static_cast<void>(kvx::platform::raiseDescriptorLimit());
    kvx::bench::run(names, rounds);
}
