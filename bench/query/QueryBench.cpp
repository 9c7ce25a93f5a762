// What a query costs a warm client.
//
// Baseline: a request and its reply of the same size on the bare session, asked for in the loop
// itself. Measured: `kvx::Client::query` for one row, by a client with a thread of its own and by
// one on the calling thread; and the same for one row and for many by hand on the classes that the
// room stands on. The daemon and the answerers are separate processes; rounds alternate, and the
// table shows the median of all rounds' single times.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvx/kvx.h"
#include "mom/mom.h"
#include "platform/Memory.h"
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
constexpr const char* kOne = "one row";
constexpr const char* kMany = "many rows";
constexpr int kManyRows = 20'000;
constexpr int kEachMany = 10;

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
    service->onQuery([](const kvx::Question& question, kvx::Reply& reply) {
        const int rows = question.text == kMany ? kManyRows : 1;
        for (int i = 0; i < rows; ++i) reply.row({{"text", kText}});
    });
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

// A query and how often a round asks it.
struct Question {
    const char* text = kOne;
    std::size_t rows = 1;
    int each = kEach;
};
constexpr Question kBulk{kMany, kManyRows, kEachMany};

// Collects the packets of an answer in a transport, decodes its records, and asks again.
class ClassRound : private RvDataCallback {
  public:
    ClassRound(const std::string& daemon, const char* service, Question question, Samples& samples)
        : net_(0, "DEFAULT", kvx::DaemonAddress{"", "", daemon}),
          subject_(kvx::ServiceName::of(service)->querySubject()),
          question_(question),
          samples_(samples) {
        ask();
        net_.RRNDoIt();
    }

  private:
    void ask() {
        samples_.begin();
        int status = kvx::kOk;
        const kvx::Text subject(net_.RRNDomainSubj(subject_.c_str()));
        const std::unique_ptr<RvSender> sender(net_.RRNNewSender(&status, subject.get(), nullptr));
        inbox_.reset(sender->sendRequest(CVekQryInfo::RQIMessage(question_.text), this, nullptr));
    }
    void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
        RvMsg message(static_cast<const RvMsg&>(data));
        packets_.RTAddMessage(&message);
        if (packets_.RTDone() != TRUE) return;
        const std::unique_ptr<CVekBag> atoms(packets_.RTDecodes());
        std::vector<std::unique_ptr<CVekBaseRecord>> rows;
        for (unsigned i = 0; i < atoms->RBSize(); ++i) {
            const std::unique_ptr<CVekAtom> atom(static_cast<CVekAtom*>(atoms->RBGet(i)));
            unsigned char* bytes = nullptr;
            int length = 0;
            atom->RAUChar(&bytes, &length);
            rows.emplace_back(CVekBaseRecord::ROMDecode(bytes, length));
        }
        packets_.RTPurge();
        if (rows.size() != question_.rows) {
            std::puts("not all rows");
            std::exit(1);
        }
        samples_.end();
        inbox_.reset();
        if (++asked_ == question_.each) return net_.RRNStopLoop();
        ask();
    }

    CVekClient net_;
    const std::string subject_;
    const Question question_;
    Samples& samples_;
    CVekTransport packets_{nullptr};
    std::unique_ptr<RvListener> inbox_;
    int asked_ = 0;
};

using Open = kvx::Result<kvx::Client> (*)(kvx::Client::Options);

void queryRound(const std::string& daemon, Open open, const char* service, Question question,
                Samples& samples) {
    auto client = open({.daemon = {"", "", daemon}});
    const auto name = kvx::ServiceName::of(service);
    for (int i = 0; client && i < question.each; ++i) {
        samples.begin();
        const auto rows = client->query(*name, question.text);
        if (!rows || rows->size() != question.rows) {
            throw std::runtime_error(rows ? "not all rows" : rows.error().message());
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
    const std::string bus = daemon.text();
    Samples raw, ofPool, ofMain, here, hereOfMain, byHand, many, manyByHand;
    for (int round = 0; round < kRounds; ++round) {
        RawRound(bus, raw);
        queryRound(bus, ownThread, kPooled, {}, ofPool);
        queryRound(bus, ownThread, kDirect, {}, ofMain);
        queryRound(bus, thisThread, kPooled, {}, here);
        ClassRound(bus, kDirect, {}, byHand);
        queryRound(bus, thisThread, kDirect, {}, hereOfMain);
        ClassRound(bus, kPooled, kBulk, manyByHand);
        queryRound(bus, thisThread, kPooled, kBulk, many);
    }
    std::printf("%-36s %10s %10s %8s\n", "", "p50 us", "p99 us", "ratio");
    const auto row = [](const char* what, Samples& samples, Samples& baseline) {
        std::printf("%-36s %10.1f %10.1f %8.2f\n", what, samples.at(.5), samples.at(.99),
                    samples.at(.5) / baseline.at(.5));
    };
    row("request and reply", raw, raw);
    row("query, a pool answers", ofPool, raw);
    row("query, the main thread does", ofMain, raw);
    row("client on the calling thread", here, raw);
    row("  and the main thread answers", hereOfMain, raw);
    row("by hand on the classes", byHand, byHand);
    row("  the client on the calling thread", hereOfMain, byHand);
    row("20,000 rows by hand", manyByHand, manyByHand);
    row("  the client on the calling thread", many, manyByHand);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "echo") == 0) return echo(argv[2]);
    if (argc == 3) return serve(argv[1], argv[2]);
    return measure(argv[0]);
}
