#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "mom/net/CVekRvNet.h"
#include "rv/rv.h"

namespace kvx::test {

/// A network whose start-up hook is the test's.
class TestNet : public CVekRvNet {
  public:
    explicit TestNet(const char* domain = "TEST") : CVekRvNet(2000, domain) {}

    void RRNPostInitFns() override {
        if (hook) hook();
    }

    std::function<void()> hook;

    using CVekRvNet::RRNCheckThreadId;
    using CVekRvNet::RRNReturnCheckThreadId;
};

/// A timer callback that calls a function.
class OnTimer : public RvTimerCallback {
  public:
    explicit OnTimer(std::function<void(RvTimer*)> call) : call_(std::move(call)) {}
    void onTimer(RvTimer* timer) override { call_(timer); }

  private:
    std::function<void(RvTimer*)> call_;
};

/// A data callback that calls functions.
class OnData : public RvDataCallback {
  public:
    using Call = std::function<void(const char*, RvSender*, const RvDatum&, RvListener*)>;
    explicit OnData(Call call) : call_(std::move(call)) {}
    void onData(const char* subject, RvSender* replyTo, const RvDatum& datum,
                RvListener* listener) override {
        call_(subject, replyTo, datum, listener);
    }

  private:
    Call call_;
};

/// An I/O callback that calls a function.
class OnIO : public RvIOCallback {
  public:
    explicit OnIO(std::function<void(RvIO*)> call) : call_(std::move(call)) {}
    void onIO(RvIO* io) override { call_(io); }

  private:
    std::function<void(RvIO*)> call_;
};

/// Turns `net`'s main loop until `done` holds; asks it at every tick of 10 ms, and gives up after a
/// minute. Returns what `done` said last.
template <class Net>
bool runUntil(Net& net, const std::function<bool()>& done, void (Net::*loop)() = &Net::RRNDoIt) {
    int ticksLeft = 6000;
    bool reached = false;
    OnTimer check([&](RvTimer*) {
        reached = done();
        if (reached || --ticksLeft == 0) net.RRNStopLoop();
    });
    int status = 0;
    const std::unique_ptr<RvTimer> timer(net.RRNNewTimer(&status, 10, rv_TRUE, &check, nullptr));
    if (!timer) return false;
    (net.*loop)();
    return reached;
}

}  // namespace kvx::test
