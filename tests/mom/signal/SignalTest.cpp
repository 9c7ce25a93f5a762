// Real signals to a real hosting process, and what its handler does without one.

#include <gtest/gtest.h>

#include <sys/prctl.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "mom/net/CVekNet.h"
#include "mom/signal/CMOMCallback.h"
#include "mom/signal/CMOMSignalHandler.h"
#include "mom/signal/CSignalCallback.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemon.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"
#include "tests/support/ProcessUsage.h"

using kvx::test::ChildProcess;
using kvx::test::Daemon;
using kvx::test::DebugLevel;
using kvx::test::eventually;
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

// Wherever a signal finds the process, it takes effect between two events of the bus, and of the
// process nothing is left.
TEST(Signals, TakeEffectWhateverTheProcessIsDoing) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // what it may leave behind becomes ours
    Daemon daemon;
    const Home home(daemon.text());
    const auto connections = kvx::test::openDescriptors(daemon.pid());
    const auto files = home.files();
    struct Run {
        std::string where;
        int signal;
        std::unique_ptr<ChildProcess> host;
    };
    const kvx::test::TemporaryDirectory directory;
    const std::string goOn = directory.file("go on");
    std::vector<Run> runs;
    for (const char* where : {"starting", "loop", "callback", "poll"}) {
        for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGHUP, SIGUSR2}) {
            runs.push_back({where, signal,
                            std::make_unique<ChildProcess>(
                                KVX_SIGNAL_HOST, std::vector<std::string>{where, "0", goOn})});
        }
    }
    for (const Run& run : runs) {
        ASSERT_EQ(run.host->awaitOutput("ready"), "ready") << run.where;
        run.host->kill(run.signal);
    }
    std::ofstream(goOn).flush();
    for (const Run& run : runs) {
        SCOPED_TRACE(run.where + " " + std::to_string(run.signal));
        std::string said = run.where == "callback" ? "ready\ndone\n" : "ready\n";
        if (run.signal == SIGHUP || run.signal == SIGUSR2) {
            if (run.signal == SIGHUP) run.host->kill(SIGUSR2);  // it lives
            EXPECT_EQ(run.host->awaitOutput(levelLine(1)), levelLine(1));
            said += levelLine(1) + "\n";
            run.host->kill(SIGTERM);
        }
        EXPECT_EQ(run.host->wait(), 0);
        EXPECT_EQ(run.host->output(), said);
        EXPECT_EQ(run.host->errors(), "");
    }
    EXPECT_TRUE(
        eventually([&] { return kvx::test::openDescriptors(daemon.pid()) == connections; }));
    EXPECT_EQ(home.files(), files);
    daemon.kill();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process without a parent";
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
