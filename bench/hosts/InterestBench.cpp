#include "bench/hosts/InterestBench.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "bench/hosts/NatsEnd.h"
#include "bench/hosts/Site.h"
#include "rvbridge/Ledger.h"
#include "tests/support/ProcessUsage.h"

namespace kvx::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kSessions = 1'000;
constexpr unsigned kRest = 10;            // seconds
constexpr std::uint64_t kWindow = 4'000;  // messages of the stream on their way

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Seconds of a processor, user and system.
double cpuSeconds(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text(std::istreambuf_iterator<char>(in), {});
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i) fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Processes, a line for each moment that is shown.
class Usage {
  public:
    void watch(const std::string& name, int pid) { processes_.push_back({name, pid, 0}); }

    void printHead() const {
        std::printf("%-34s", "MiB resident / s of processor");
        for (const auto& process : processes_) std::printf(" %12s", process.name.c_str());
        std::printf("\n");
    }
    // The time of a processor since the last line.
    void print(const std::string& moment) {
        std::printf("%-34s", moment.c_str());
        for (auto& process : processes_) {
            const double cpu = cpuSeconds(process.pid);
            std::printf(" %6.1f/%5.2f",
                        static_cast<double>(test::residentBytes(process.pid)) / (1 << 20),
                        cpu - process.cpu);
            process.cpu = cpu;
        }
        std::printf("\n");
        std::fflush(stdout);
    }

  private:
    struct Process {
        std::string name;
        int pid;
        double cpu;
    };
    std::vector<Process> processes_;
};

// Numbered messages of 128 bytes payload from one host to another, at most `kWindow` on their way.
class Stream {
  public:
    Stream(std::uint16_t from, std::uint16_t to) : sender_(from), receiver_(to) {
        receiver_.client().listen("STREAM");
        awaitWay(sender_, receiver_, "STREAM");
        receiving_ = std::thread([this] { receive(); });
        sending_ = std::thread([this] { send(); });
    }
    ~Stream() {
        stops_ = true;
        sending_.join();
        shutdown(receiver_.client().socket(), SHUT_RDWR);
        receiving_.join();
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // Of the time since the last call.
    void print(const std::string& moment) {
        const std::uint64_t heard = heard_;
        const double seconds = secondsSince(since_);
        std::printf("  %-40s stream %9.0f messages/s, %llu lost, longest pause %4.0f ms\n",
                    moment.c_str(), static_cast<double>(heard - printed_) / seconds,
                    static_cast<unsigned long long>(lost_.load()), longest_.exchange(0) * 1e3);
        printed_ = heard;
        since_ = Clock::now();
    }

  private:
    template <class Vector>
    static auto numberIn(Vector& message) {
        static constexpr std::string_view kMark = "NUMBER: ";
        const auto at = std::search(message.begin(), message.end(), kMark.begin(), kMark.end());
        if (at == message.end()) throw std::runtime_error("not a message of the stream");
        return &*at + kMark.size();
    }

    static test::ByteVector messageOf(std::uint64_t number) {
        std::string payload(kPayload, 'x');
        std::memcpy(payload.data(), "NUMBER: ", 8);
        std::memcpy(payload.data() + 8, &number, sizeof number);
        return test::bytesOf(wire::buildData(test::encodedSubject("STREAM"), nullptr, 0,
                                             {RVMSG_OPAQUE, kPayload, payload.data()}));
    }
    void send() {
        test::ByteVector message = messageOf(0);
        std::uint8_t* const at = numberIn(message);
        for (std::uint64_t number = 1; !stops_; ++number) {
            std::memcpy(at, &number, sizeof number);
            sender_.send(message);
            while (!stops_ && number - last_ >= kWindow) usleep(100);
        }
    }
    void receive() {
        Clock::time_point before = Clock::now();
        while (true) {
            const auto message = receiver_.client().readMessage();
            if (message.empty()) return;
            if (message.size() <= kPayload) continue;
            std::uint64_t number = 0;
            std::memcpy(&number, numberIn(message), sizeof number);
            lost_ += number - last_ - 1;
            last_ = number;
            ++heard_;
            const double pause = secondsSince(before);
            if (pause > longest_) longest_ = pause;
            before = Clock::now();
        }
    }
    Session sender_;
    Session receiver_;
    std::atomic<bool> stops_ = false;
    std::atomic<std::uint64_t> last_ = 0;
    std::atomic<std::uint64_t> heard_ = 0;
    std::atomic<std::uint64_t> lost_ = 0;
    std::atomic<double> longest_ = 0;
    std::uint64_t printed_ = 0;
    Clock::time_point since_ = Clock::now();
    std::thread receiving_;
    std::thread sending_;
};

// Asks the bridge at a daemon about the others.
class Asker {
  public:
    explicit Asker(std::uint16_t port) : client_(test::RawClient::session(port)) {
        client_.listen("_RVD.ANSWER");
        client_.settle();
    }
    // How many of the hosts that are up have so many subjects.
    std::size_t hostsWith(std::size_t subjects) {
        client_.publish("_RVD.HOSTS", "", "_RVD.ANSWER");
        const std::string text = client_.expectText();
        const std::string wanted = "\"subjects\":" + std::to_string(subjects) + ',';
        std::size_t count = 0;
        for (auto at = text.find(wanted); at != text.npos; at = text.find(wanted, at + 1)) ++count;
        return count;
    }
    // Seconds until so many hosts have so many subjects.
    double await(std::size_t hosts, std::size_t subjects) {
        const auto begin = Clock::now();
        while (hostsWith(subjects) < hosts) usleep(5'000);
        return secondsSince(begin);
    }

  private:
    test::RawClient client_;
};

std::string subjectOf(std::size_t i) {
    return "INTEREST.DEVICE" + std::to_string(i / 100) + ".PORT" + std::to_string(i % 100);
}

void listenTo(test::RawClient& client, std::size_t from, std::size_t to, bool isListen) {
    test::ByteVector block;
    for (std::size_t i = from; i < to; ++i) {
        const auto encoded = test::encodedSubject(subjectOf(i));
        const auto built = test::bytesOf(isListen ? wire::buildListen(encoded, nullptr, 0)
                                                  : wire::buildCancel(encoded, 0));
        block.insert(block.end(), built.begin(), built.end());
        if (block.size() < 65'536 && i + 1 < to) continue;
        client.send(block);
        block.clear();
    }
}

// Listens of one session while others follow the interest.
void measureFollowers() {
    for (const std::size_t followers : {0, 1, 10, 100}) {
        const test::Daemon daemon;
        std::vector<test::RawClient> following;
        for (std::size_t i = 0; i < followers; ++i) {
            following.push_back(test::RawClient::session(daemon.port()));
            following.back().listen("_RVD.INTEREST");
        }
        test::RawClient listener = test::RawClient::session(daemon.port());
        listener.settle();
        constexpr std::size_t kListens = 5'000;
        const auto begin = Clock::now();
        listenTo(listener, 0, kListens, true);
        listener.settle();
        std::printf("  a listen with %3zu followers %20.2f us\n", followers,
                    secondsSince(begin) / kListens * 1e6);
    }
}

}  // namespace

void measureInterest(std::size_t subjects, int rounds) {
    measureFollowers();
    const test::NatsServer first;
    const test::NatsServer second(&first);
    const Site a("a", first);
    const Site b("b", second);
    const Site c("c", first);
    Usage usage;
    const std::array<std::pair<const char*, const Site*>, 3> sites = {
        {{"a", &a}, {"b", &b}, {"c", &c}}};
    for (const auto& [name, site] : sites) {
        usage.watch(std::string("rvd ") + name, site->daemon().pid());
        usage.watch(std::string("rvbridge ") + name, site->bridge().pid());
    }
    usage.watch("nats a, c", first.pid());
    usage.watch("nats b", second.pid());
    std::printf("# %zu subjects come and go on host c, a stream from a to b; what a knows of c\n",
                subjects);
    Stream stream(a.daemon().port(), b.daemon().port());
    Asker asker(a.daemon().port());
    sleep(3);
    usage.printHead();
    usage.print("before");
    stream.print("alone");
    for (int round = 0; round < rounds; ++round) {
        test::RawClient listener = test::RawClient::session(c.daemon().port());
        const auto begin = Clock::now();
        listenTo(listener, 0, subjects, true);
        asker.await(1, subjects);
        const double came = secondsSince(begin);
        usage.print("one session: at the peak");
        const auto end = Clock::now();
        listenTo(listener, 0, subjects, false);
        asker.await(2, 0);
        std::printf("  known after %.2f s, gone after %.2f s\n", came, secondsSince(end));
        usage.print("one session: gone");
        stream.print("while one session listens and cancels");
    }
    for (int round = 0; round < rounds; ++round) {
        std::vector<test::RawClient> listeners;
        const std::size_t each = subjects / kSessions;
        auto begin = Clock::now();
        for (std::size_t i = 0; i < kSessions; ++i) {
            listeners.push_back(test::RawClient::session(c.daemon().port()));
            listenTo(listeners.back(), i * each, (i + 1) * each, true);
        }
        const double connected = secondsSince(begin);
        asker.await(1, kSessions * each);
        const double came = secondsSince(begin);
        usage.print("1,000 sessions: at the peak");
        begin = Clock::now();
        listeners.clear();
        asker.await(2, 0);
        std::printf("  connected after %.2f s, known after %.2f s, gone after %.2f s\n", connected,
                    came, secondsSince(begin));
        usage.print("1,000 sessions: gone");
        stream.print("while 1,000 sessions come and go");
    }
    sleep(kRest);
    usage.print("after 10 s");
    stream.print("alone");
}

void measureJoins(std::size_t hosts) {
    const test::NatsServer nats;
    std::printf("# %zu hosts, each with a daemon and ten subjects, join one node at once\n", hosts);
    std::vector<std::unique_ptr<test::Daemon>> daemons;
    std::vector<test::RawClient> listeners;
    for (std::size_t i = 0; i < hosts; ++i) {
        daemons.push_back(std::make_unique<test::Daemon>());
        listeners.push_back(test::RawClient::session(daemons.back()->port()));
        for (std::size_t s = 0; s < 10; ++s) listeners.back().listen(subjectOf(i * 100 + s));
        listeners.back().settle();
    }
    NatsEnd spy(nats.url(), false);
    spy.listen("kvx.>", 0);
    const auto begin = Clock::now();
    std::vector<std::unique_ptr<test::ChildProcess>> bridges;
    for (std::size_t i = 0; i < hosts; ++i) {
        bridges.push_back(std::make_unique<test::ChildProcess>(
            KVX_BIN_DIR "/rvbridge",
            std::vector<std::string>{"-host", "host" + std::to_string(i), "-engine", nats.url(),
                                     "-daemon", daemons[i]->text()}));
    }
    std::printf("  %-44s %6.2f s\n", "started", secondsSince(begin));
    for (auto& bridge : bridges) {
        if (bridge->awaitOutput("rvbridge ready").empty()) {
            throw std::runtime_error(bridge->errors());
        }
    }
    std::printf("  %-44s %6.2f s\n", "all ready", secondsSince(begin));
    std::vector<Asker> askers;
    for (auto& daemon : daemons) askers.emplace_back(daemon->port());
    for (Asker& asker : askers) asker.await(hosts - 1, 10);
    std::printf("  %-44s %6.2f s\n", "each knows all others", secondsSince(begin));
    const auto sum = [&bridges](auto&& of) {
        double total = 0;
        for (auto& bridge : bridges) total += of(bridge->pid());
        return total;
    };
    const auto cpu = [](int pid) { return cpuSeconds(pid); };
    const double joined = sum(cpu);
    const double joinedNats = cpuSeconds(nats.pid());
    std::printf("  %-44s %6.2f s\n", "processor time: all bridges", joined);
    std::printf("  %-44s %6.2f s\n", "processor time: nats-server", joinedNats);

    std::printf("  %-44s %6zu of %zu bytes\n", "messages at the engine until then", spy.heard(),
                spy.sum());
    const std::size_t messages = spy.heard();
    const std::size_t bytes = spy.sum();
    sleep(kRest);
    std::printf(
        "  %-44s %6.1f of %.0f bytes\n", "at rest: messages a second",
        static_cast<double>(spy.heard() - messages) / kRest,
        static_cast<double>(spy.sum() - bytes) / static_cast<double>(spy.heard() - messages));
    std::printf("  %-44s %6.2f ms a second\n", "at rest: each bridge",
                (sum(cpu) - joined) / kRest / static_cast<double>(hosts) * 1e3);
    std::printf("  %-44s %6.2f ms a second\n", "at rest: nats-server",
                (cpuSeconds(nats.pid()) - joinedNats) / kRest * 1e3);
    std::printf("  %-44s %6.1f MiB\n", "resident: each bridge",
                sum([](int pid) { return test::residentBytes(pid); }) / static_cast<double>(hosts) /
                    (1 << 20));
    std::printf("  %-44s %6.1f MiB\n", "resident: nats-server",
                static_cast<double>(test::residentBytes(nats.pid())) / (1 << 20));
}

}  // namespace kvx::bench
