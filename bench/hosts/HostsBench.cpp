// bench_hosts: what a message costs between two hosts, against NATS alone.
//
// Two nodes of NATS, a cluster; two hosts, each an rvd and an rvbridge at its own node. All are
// processes of their own on the loopback; the clients are threads of this program. Beside it NATS's
// C client, which sends at once, between the same two nodes. Every payload has 128 bytes; what the
// systems put around it comes on top.
//
//   round trip  one request at a time from the first host, answered on the second; p50
//   stream      from the first send on the first host to the last message received on the second,
//               every one counted. The subjects are taken in turn, and the receiver listens to all
//               of them by one pattern. "one write each" sends each message by itself, as NATS's
//               client does; "in blocks" sends 7,168 bytes at a time, as the client library does
//               when it is told to batch
//   query       a whole table from the service on the first host to a querier on the second,
//               against a querier on the first
//
// Raw sessions on both hosts. The contestants run in turn in every round. A figure is the median
// over the rounds, a ratio the median of the rounds' ratios.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <numeric>
#include <thread>

#include "bench/hosts/InterestBench.h"
#include "bench/hosts/NatsEnd.h"
#include "bench/hosts/Site.h"
#include "bench/support/Measure.h"
#include "kvx/Client.h"
#include "platform/Memory.h"

namespace kvx::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBlock = 7'168;  // bytes of one send
constexpr int kWarmUp = 200;           // requests before the first measured one

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

test::ByteVector message(const std::string& subject) {
    const std::string payload(kPayload, 'x');
    return test::bytesOf(wire::buildData(test::encodedSubject(subject), nullptr, 0,
                                         {RVMSG_OPAQUE, kPayload, payload.data()}));
}

double p50(int requests, const std::function<void()>& roundTrip) {
    std::vector<double> times;
    for (int i = 0; i < requests + kWarmUp; ++i) {
        const auto begin = Clock::now();
        roundTrip();
        if (i >= kWarmUp) times.push_back(secondsSince(begin) * 1e6);
    }
    return quantile(std::move(times));
}

// Names of their own for each measurement: what was listened to in the last one may not yet have
// been taken back everywhere.
std::string newPrefix() {
    static int measurements = 0;
    return "BENCH." + std::to_string(++measurements) + '.';
}

std::vector<std::string> subjects(const std::string& prefix, std::size_t count) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i) names.push_back(prefix + std::to_string(i));
    return names;
}

// Messages a second; throws when one is lost.
double rate(std::size_t messages, const std::function<void()>& send,
            const std::function<std::size_t()>& receive) {
    const auto begin = Clock::now();
    std::jthread sender(send);
    const std::size_t received = receive();
    const double seconds = secondsSince(begin);
    sender.join();
    if (received != messages) {
        throw std::runtime_error(std::to_string(messages - received) + " messages are lost");
    }
    return static_cast<double>(messages) / seconds;
}

// Between the nodes.
class Nats {
  public:
    Nats(const test::NatsServer& near, const test::NatsServer& far) : near_(near), far_(far) {}

    double roundTrip(int requests) {
        NatsEnd asker(near_.url(), true);
        NatsEnd answerer(far_.url(), true);
        const std::string subject = newPrefix() + 'Q';
        answerer.answer(subject);
        const std::string payload(kPayload, 'x');
        const auto ask = [&] {
            natsMsg* answer = nullptr;
            const natsStatus status =
                natsConnection_Request(&answer, asker.connection(), subject.c_str(), payload.data(),
                                       static_cast<int>(payload.size()), 1'000);
            natsMsg_Destroy(answer);
            return status;
        };
        while (ask() == NATS_NO_RESPONDERS) {
        }
        return p50(requests, [&] { require(ask()); });
    }

    double stream(std::size_t messages, std::size_t subjectCount, bool atOnce) {
        NatsEnd sender(near_.url(), atOnce);
        NatsEnd receiver(far_.url(), atOnce);
        const std::string prefix = newPrefix();
        receiver.listen(prefix + '*', kPayload);
        const auto names = subjects(prefix, subjectCount);
        while (!receiver.isReached()) {
            sender.publish(names[0], "");
            sender.flush();
        }
        const std::string payload(kPayload, 'x');
        const auto send = [&] {
            for (std::size_t i = 0; i < messages; ++i) {
                sender.publish(names[i % names.size()], payload);
            }
        };
        return rate(messages, send, [&] { return receiver.await(messages); });
    }

  private:
    const test::NatsServer& near_;
    const test::NatsServer& far_;
};

// Between two daemons, or two sessions of one.
class Bus {
  public:
    Bus(const test::Daemon& near, const test::Daemon& far) : near_(near.port()), far_(far.port()) {}

    double roundTrip(int requests) const {
        Session asker(near_);
        Session answerer(far_);
        const std::string prefix = newPrefix();
        asker.client().listen(prefix + 'A');
        answerer.client().listen(prefix + 'Q');
        awaitWay(asker, answerer, prefix + 'Q');
        awaitWay(answerer, asker, prefix + 'A');
        const auto question = message(prefix + 'Q');
        const auto answer = message(prefix + 'A');
        const int all = requests + kWarmUp;
        std::jthread answering([&] {
            for (int i = 0; i < all && answerer.take(1) == 1; ++i) answerer.send(answer);
        });
        const double median = p50(requests, [&] {
            asker.send(question);
            if (asker.take(1) != 1) throw std::runtime_error("an answer is lost");
        });
        answering.join();
        return median;
    }

    double stream(std::size_t messages, std::size_t subjectCount, bool atOnce) const {
        Session sender(near_);
        Session receiver(far_);
        const std::string prefix = newPrefix();
        receiver.client().listen(prefix + '*');
        const auto names = subjects(prefix, subjectCount);
        awaitWay(sender, receiver, names[0]);
        std::vector<test::ByteVector> turn;
        for (const auto& name : names) turn.push_back(message(name));
        const auto send = [&] {
            test::ByteVector block;
            for (std::size_t i = 0; i < messages; ++i) {
                const auto& next = turn[i % turn.size()];
                block.insert(block.end(), next.begin(), next.end());
                if (!atOnce && block.size() < kBlock && i + 1 < messages) continue;
                sender.send(block);
                block.clear();
            }
        };
        return rate(messages, send, [&] { return receiver.take(messages); });
    }

  private:
    std::uint16_t near_;
    std::uint16_t far_;
};

// One line of the table: the first contestant is the baseline of the second.
class Line {
  public:
    Line(std::string name, std::string goal, std::function<double()> baseline,
         std::function<double()> measured)
        : name_(std::move(name)),
          goal_(std::move(goal)),
          baseline_(std::move(baseline)),
          measured_(std::move(measured)) {}

    [[nodiscard]] bool has(const std::string& text) const { return name_.find(text) != name_.npos; }
    void run() {
        const double baseline = baseline_();
        const double measured = measured_();
        baselines_.push_back(baseline);
        figures_.push_back(measured);
        ratios_.push_back(measured / baseline);
    }
    void print() const {
        std::printf("%-46s %12.1f %12.1f %8.2f  %s\n", name_.c_str(), quantile(baselines_),
                    quantile(figures_), quantile(ratios_), goal_.c_str());
    }

  private:
    std::string name_;
    std::string goal_;
    std::function<double()> baseline_;
    std::function<double()> measured_;
    std::vector<double> baselines_;
    std::vector<double> figures_;
    std::vector<double> ratios_;
};

// modeld with the register.
class Register {
  public:
    explicit Register(const test::Daemon& daemon) {
        std::filesystem::create_directory(home_.file("etc"));
        std::ofstream(home_.file("etc/Calvorine.rvd.cfg"))
            << "rendezvous session = { \"daemon\" = \"" << daemon.text() << "\" };\n";
        const std::string data = "/usr/share/ieee-data/";
        model_.emplace(KVX_BIN_DIR "/modeld",
                       std::vector<std::string>{"--standalone", "--db", home_.file("register.db"),
                                                "--table", "vendors", "--load", data + "oui.csv",
                                                data + "mam.csv", data + "oui36.csv"},
                       std::vector<std::string>{"KVX_HOME=" + home_.path()});
        if (model_->awaitError("answering").empty()) throw std::runtime_error(model_->errors());
    }

    // Rows a second, by a client at that daemon.
    double rate(const test::Daemon& daemon) {
        kvx::Client::Options options;
        options.daemon.daemon = daemon.text();
        auto client = kvx::Client::onThisThread(options);
        if (!client) throw std::runtime_error("no daemon");
        const bool isThere = test::eventually([&client] {
            return client->query("Model", "select * from vendors limit 1", std::chrono::seconds(1))
                .has_value();
        });
        if (!isThere) throw std::runtime_error("modeld does not answer");
        // The service's queue has a tick: rounds must not always start at the same phase of it.
        std::this_thread::sleep_for(std::chrono::milliseconds(phase_ = (phase_ + 37) % 100));
        const auto begin = Clock::now();
        const auto rows = client->query("Model", "select * from vendors", std::chrono::minutes(1));
        if (!rows || rows->size() == 0) throw std::runtime_error("no rows");
        return static_cast<double>(rows->size()) / secondsSince(begin);
    }

  private:
    test::TemporaryDirectory home_;
    std::optional<test::ChildProcess> model_;
    int phase_ = 0;
};

void compare(long rounds, int requests, std::size_t messages, const std::string& only) {
    std::printf(
        "# %ld rounds, contestants in turn; payloads of %zu bytes; %d requests one at a time;\n"
        "# streams of %zu messages, nothing lost; clients are threads, all else processes, "
        "loopback\n"
        "# figures: median over the rounds; ratios: median of the rounds' ratios\n",
        rounds, kPayload, requests, messages);
    std::fflush(stdout);
    const test::NatsServer nearNode;
    const test::NatsServer farNode(&nearNode);
    const Site near("near", nearNode);
    const Site far("far", farNode);
    Register table(near.daemon());
    Nats nats(nearNode, farNode);
    const Bus across(near.daemon(), far.daemon());
    const Bus local(near.daemon(), near.daemon());
    std::vector<Line> lines;
    lines.emplace_back(
        "request/reply p50, us: NATS, hosts", "<= 2.5", [&] { return nats.roundTrip(requests); },
        [&] { return across.roundTrip(requests); });
    lines.emplace_back(
        "request/reply p50, us: NATS, one daemon", "", [&] { return nats.roundTrip(requests); },
        [&] { return local.roundTrip(requests); });
    for (const std::size_t subjectCount : {std::size_t{1}, std::size_t{64}}) {
        const std::string of = std::to_string(subjectCount) + " subjects, messages/s: ";
        const auto natsStream = [&nats, messages, subjectCount] {
            return nats.stream(messages, subjectCount, true);
        };
        for (const bool atOnce : {true, false}) {
            lines.emplace_back(of + (atOnce ? "NATS, one write each" : "NATS, in blocks"), ">= 1",
                               natsStream, [&across, messages, subjectCount, atOnce] {
                                   return across.stream(messages, subjectCount, atOnce);
                               });
        }
        lines.emplace_back(
            of + "NATS, NATS buffered", "", natsStream,
            [&nats, messages, subjectCount] { return nats.stream(messages, subjectCount, false); });
    }
    lines.emplace_back(
        "whole-register query, rows/s: one host, hosts", ">= 0.5",
        [&] { return table.rate(near.daemon()); }, [&] { return table.rate(far.daemon()); });
    std::erase_if(lines, [&only](const Line& line) { return !line.has(only); });
    for (long i = 0; i < rounds; ++i) {
        for (Line& line : lines) line.run();
    }
    std::printf("%-46s %12s %12s %8s  %s\n", "baseline, measured", "baseline", "measured", "ratio",
                "wanted");
    for (const Line& line : lines) line.print();
}

}  // namespace
}  // namespace kvx::bench

// bench_hosts [rounds [requests [messages [text]]]]: only the lines of the table that have `text`
// bench_hosts interest [subjects [rounds]]
// bench_hosts joins [hosts]
// bench_hosts choice
int main(int argc, char** argv) {
    kvx::platform::keepFreedMemory();  // as in kvx, whose receiving side this is
    const auto argument = [argc, argv](int i, long otherwise) {
        return argc > i ? std::strtol(argv[i], nullptr, 10) : otherwise;
    };
    const std::string what = argc > 1 ? argv[1] : "";
    try {
        if (what == "interest") {
            kvx::bench::measureInterest(static_cast<std::size_t>(argument(2, 100'000)),
                                        static_cast<int>(argument(3, 2)));
        } else if (what == "joins") {
            kvx::bench::measureJoins(static_cast<std::size_t>(argument(2, 50)));
        } else if (what == "choice") {
            kvx::bench::measureChoice();
        } else {
            kvx::bench::compare(argument(1, 7), static_cast<int>(argument(2, 3'000)),
                                static_cast<std::size_t>(argument(3, 200'000)),
                                argc > 4 ? argv[4] : "");
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_hosts: %s\n", error.what());
        return 1;
    }
    return 0;
}
