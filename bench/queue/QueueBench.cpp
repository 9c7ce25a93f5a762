// The cost of an engine's send, direct and through its queue, against the core's own send.
//
// All three publish the same datum to a real daemon without listeners, and flush it before the
// clock stops. The queue is drained in one tick.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/support/Broker.h"
#include "bench/support/Measure.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekInitTimedClb.h"
#include "tests/support/Home.h"

namespace {

using kvx::bench::Contestant;

constexpr std::size_t kTimes = 5000;  // items a tick
constexpr unsigned long kFlushMs = 10000;
constexpr char kSubject[] = "BENCH.QUEUE";

class Scene {
  public:
    void sendByCore(std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            rv_Send(session(), kSubject, nullptr, datum_.type(), datum_.size(), datum_.data());
        }
        flush();
    }
    void sendAtOnce(std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) engine_.RESend(kSubject, datum_, FALSE);
        flush();
    }
    void sendThroughQueue(std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            engine_.REAddToSendQueue(kSubject, new RvDatum(datum_), nullptr, FALSE);
        }
        CVekInitTimedClb drain(static_cast<int>(times));
        drain.onTimer(tick_.get());
        flush();
    }

  private:
    rv_Session session() { return engine_.m_session->handle(); }
    void flush() { rv_Flush(session(), kFlushMs); }
    std::unique_ptr<RvTimer> newTick() {
        int status = 0;
        return std::unique_ptr<RvTimer>(engine_.RRNNewTimer(&status, 600000, &never_, &engine_));
    }

    kvx::bench::Broker daemon_{std::string(KVX_RVD_PROGRAM) + " -listen tcp:0"};
    kvx::test::Home home_{"tcp:127.0.0.1:" + std::to_string(daemon_.port())};
    CVekEngine engine_{1, "bench", "BENCH", SERV_UNKNOWN};
    std::string text_ = std::string(200, 'x');
    RvDatum datum_{RVMSG_STRING, 201, text_.c_str()};
    CVekInitTimedClb never_{1};
    std::unique_ptr<RvTimer> tick_ = newTick();
};

}  // namespace

int main() {
    Scene scene;
    std::vector<Contestant> contestants = {
        {"the core's send", [&](std::size_t times) { scene.sendByCore(times); }},
        {"the engine's, at once", [&](std::size_t times) { scene.sendAtOnce(times); }},
        {"the engine's, queued", [&](std::size_t times) { scene.sendThroughQueue(times); }},
    };
    kvx::bench::measure(contestants, kTimes, 21);
    std::printf("%zu sends of 200 bytes to a real daemon, pushed out; median of 21 rounds\n",
                kTimes);
    std::printf("%-30s %-26s %10s %8s\n", "question", "way", "ns a send", "ratio");
    kvx::bench::printRows("send", contestants);
}
