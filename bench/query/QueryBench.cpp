// What a query costs a warm client.
//
// Baseline: a request and its reply of the same size on the bare session, asked for in the loop
// itself. Measured: `kvx::Client::query` for one row, by a client with a thread of its own and by
// one on the calling thread. The daemon and the answerers are separate processes; rounds alternate,
// and the table shows the median of all rounds' single times.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvx/kvx.h"
#include "rv/rv.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemon.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRounds = 10;
constexpr int kEach = 2000;
constexpr const char* kPooled = "Pooled";  // the services
constexpr const char* kDirect = "Direct";
constexpr const char* kSubject = "BENCH.ECHO";
constexpr char kText[] = "twenty bytes of text";

class Session {
  public:
    explicit Session(const char* daemon) {
        if (rv_Open(&session_, nullptr, nullptr, daemon) != 0) throw std::runtime_error("no bus");
    }
    ~Session() { rv_Close(session_); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    [[nodiscard]] rv_Session get() const { return session_; }

  private:
    rv_Session session_ = nullptr;
};

int echo(const char* daemon) {
    const Session session(daemon);
    rv_Listener listener = nullptr;
    rv_Listen(
        session.get(), &listener, kSubject,
        [](rv_Session bus, const char*, const char* reply, rvmsg_Type type, rvmsg_Size size,
           rvmsg_Data data, void*) { rv_Send(bus, reply, nullptr, type, size, data); },
        nullptr);
    std::puts("active");
    std::fflush(stdout);
    return rv_RunOnce(session.get());
}

int serve(const std::string& name, const std::string& daemon) {
    const int threads = name == kDirect ? 0 : 2;
    auto service = kvx::Service::open(name, {.daemon = {"", "", daemon}, .threads = threads});
    if (!service) return 1;
    service->onQuery([](const kvx::Question&, kvx::Reply& reply) { reply.row({{"text", kText}}); });
    service->onRole([](bool) {
        std::puts("active");
        std::fflush(stdout);
    });
    return service->run();
}

class Samples {
  public:
    void begin() { begin_ = Clock::now(); }
    void end() {
        const std::chrono::duration<double, std::micro> spent = Clock::now() - begin_;
        microseconds_.push_back(spent.count());
    }
    [[nodiscard]] std::size_t size() const { return microseconds_.size(); }
    [[nodiscard]] double at(double part) {
        std::sort(microseconds_.begin(), microseconds_.end());
        return microseconds_[static_cast<std::size_t>(part * static_cast<double>(size() - 1))];
    }

  private:
    Clock::time_point begin_;
    std::vector<double> microseconds_;
};

// Asks again in the callback of each reply.
class RawRound {
  public:
    RawRound(const std::string& daemon, Samples& samples)
        : session_(daemon.c_str()), samples_(samples), end_(samples.size() + kEach) {
        ask();
        rv_RunOnce(session_.get());
    }

  private:
    void ask() {
        if (asked_ != nullptr) rv_Cancel(session_.get(), asked_);
        samples_.begin();
        rv_SendRequest(session_.get(), &asked_, kSubject, RVMSG_STRING, sizeof kText, kText,
                       onReply, this);
    }
    static void onReply(rv_Session session, const char*, const char*, rvmsg_Type, rvmsg_Size,
                        rvmsg_Data, void* closure) {
        auto& round = *static_cast<RawRound*>(closure);
        round.samples_.end();
        round.samples_.size() < round.end_ ? round.ask() : void(rv_StopLoop(session));
    }

    const Session session_;
    Samples& samples_;
    const std::size_t end_;
    rv_Listener asked_ = nullptr;
};

using Open = kvx::Result<kvx::Client> (*)(kvx::Client::Options);

void queryRound(const std::string& daemon, Open open, const char* service, Samples& samples) {
    auto client = open({.daemon = {"", "", daemon}});
    const auto name = kvx::ServiceName::of(service);
    for (int i = 0; client && i < kEach; ++i) {
        samples.begin();
        if (const auto rows = client->query(*name, "*"); !rows || rows->size() != 1) {
            throw std::runtime_error(rows ? "no row" : rows.error().message());
        }
        samples.end();
    }
}

int measure(const char* self) {
    kvx::test::Daemon daemon;
    kvx::test::ChildProcess echoer(self, {"echo", daemon.text()});
    kvx::test::ChildProcess pooled(self, {kPooled, daemon.text()});
    kvx::test::ChildProcess direct(self, {kDirect, daemon.text()});
    for (auto* answerer : {&echoer, &pooled, &direct}) {
        if (answerer->awaitOutput("active").empty()) return 1;
    }
    const Open ownThread = kvx::Client::open;
    const Open thisThread = kvx::Client::onThisThread;
    Samples raw;
    Samples ofPool;
    Samples ofMain;
    Samples here;
    Samples hereOfMain;
    for (int round = 0; round < kRounds; ++round) {
        RawRound(daemon.text(), raw);
        queryRound(daemon.text(), ownThread, kPooled, ofPool);
        queryRound(daemon.text(), ownThread, kDirect, ofMain);
        queryRound(daemon.text(), thisThread, kPooled, here);
        queryRound(daemon.text(), thisThread, kDirect, hereOfMain);
    }
    std::printf("%-28s %10s %10s %8s\n", "", "p50 us", "p99 us", "ratio");
    const auto row = [&](const char* what, Samples& samples) {
        std::printf("%-28s %10.1f %10.1f %8.2f\n", what, samples.at(.5), samples.at(.99),
                    samples.at(.5) / raw.at(.5));
    };
    row("request and reply", raw);
    row("query, a pool answers", ofPool);
    row("query, the main thread does", ofMain);
    row("client on the calling thread", here);
    row("  and the main thread answers", hereOfMain);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "echo") == 0) return echo(argv[2]);
    if (argc == 3) return serve(argv[1], argv[2]);
    return measure(argv[0]);
}
