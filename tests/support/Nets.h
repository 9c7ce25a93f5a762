#pragma once

#include <functional>
#include <memory>
#include <utility>

#include "mom/net/CVekRvNet.h"
#include "rv/rv.h"
#include "tests/support/Callbacks.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"

namespace kvx::test {

/// What a test without a bus begins with.
struct NoDaemon : testing::Test {
    Home home{"-"};
    ErrorRecorder errors;
    RvDatum datum{RVMSG_STRING, 2, "x"};
    OnData ignoreData;
    OnTimer ignoreTimer;
};

/// A network whose start-up hook is the test's.
class TestNet : public CVekRvNet {
  public:
    explicit TestNet(const char* domain = "TEST", const DaemonAddress& address = {})
        : CVekRvNet(2000, domain, address) {}

    void RRNPostInitFns() override {
        if (hook) hook();
    }

    std::function<void()> hook;

    using CVekRvNet::RRNCheckThreadId;
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
