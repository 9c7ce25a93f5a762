// Real signals to a real hosting process, and what its handler does without one.

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "mom/net/CVekNet.h"
#include "mom/signal/CMOMCallback.h"
#include "mom/signal/CMOMSignalHandler.h"
#include "mom/signal/CSignalCallback.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"

using kvx::test::ChildProcess;
using kvx::test::DebugLevel;
using kvx::test::Home;
using kvx::test::outputOf;

namespace {

class Host {
  public:
    explicit Host(const std::vector<std::string>& arguments = {"run"})
        : m_child(KVX_SIGNAL_HOST, arguments, {m_home.variable()}) {}

    std::string await(const std::string& text) { return m_child.awaitOutput(text); }
    void signal(int number) { m_child.kill(number); }
    int wait() { return m_child.wait(); }
    std::string output() const { return m_child.output(); }

  private:
    Home m_home{"-"};
    ChildProcess m_child;
};

std::string levelLine(int level) {
    return "Received SIGUSR2: Switched to debug level " + std::to_string(level);
}

struct CountingCallback : CCallbackBase {
    void operator()() override { ++calls; }
    int calls = 0;
};

}  // namespace

TEST(Signals, EndTheProcessWithStatusZero) {
    for (const int number : {SIGINT, SIGTERM, SIGUSR1}) {
        Host host;
        ASSERT_EQ(host.await("ready"), "ready");
        host.signal(number);
        EXPECT_EQ(host.wait(), 0) << number;
        EXPECT_EQ(host.output(), "ready\n");
    }
}

TEST(Signals, StepTheDebugLevelRoundAndIgnoreAHangUp) {
    Host host;
    ASSERT_EQ(host.await("ready"), "ready");
    host.signal(SIGHUP);
    for (const int level : {1, 2, 3, 4, 0}) {
        host.signal(SIGUSR2);
        ASSERT_EQ(host.await(levelLine(level)), levelLine(level));
    }
    EXPECT_EQ(host.output().rfind("ready\n" + levelLine(1) + "\n", 0), 0U);
    host.signal(SIGHUP);
    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(), 0);
}

TEST(Signals, ShutDownFromInsideTheLoop) {
    Host host({"shutdown"});
    EXPECT_EQ(host.wait(), 0);
    EXPECT_EQ(host.output(), "Shutdown message received!\nready\n");
}

TEST(Signals, AreHandledWhenTheNetIsManagedTwice) {
    Host host({"again"});
    ASSERT_EQ(host.await("ready"), "ready");
    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(), 0);
}

TEST(Signals, GoBackToTheSystemsDefaultAfterAStop) {
    Host host({"stop"});
    ASSERT_EQ(host.await("stopped"), "stopped");
    host.signal(SIGTERM);
    EXPECT_EQ(host.wait(), -SIGTERM);
}

TEST(Signals, AreStoppedByADestructionThatSaysSoAtLevelOne) {
    for (const auto& [level, trace] :
         {std::pair("0", ""), std::pair("1", "unexpected - signal poller still running\n")}) {
        Host host({"destroy", level});
        EXPECT_EQ(host.wait(), 3);
        EXPECT_EQ(host.output(), std::string("left\n") + trace);
    }
}

TEST(SignalHandler, DropsCallbacksWhileItManagesNothing) {
    CMOMSignalHandler handler;
    CountingCallback callback;
    handler.manage(nullptr);
    EXPECT_TRUE(handler.runHandler(&callback));
    handler.stop();
    EXPECT_EQ(callback.calls, 0);
}

TEST(SignalHandler, RefusesANetThatIsNotOfTheBus) {
    kvx::test::ErrorRecorder errors;
    CVekNet net;
    CMOMSignalHandler handler;
    handler.manage(&net);
    EXPECT_EQ(errors.take(), (std::vector{kvx::test::Report{-220552, "CMOMSignalHandler", 0, ""}}));
}
