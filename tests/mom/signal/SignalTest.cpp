// Real signals to a real hosting process, and what its handler does without one.

#include <sys/prctl.h>

#include <climits>

#include "mom/net/CVekNet.h"
#include "mom/signal/CMOMCallback.h"
#include "mom/signal/CMOMSignalHandler.h"
#include "mom/signal/CSignalCallback.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemon.h"
#include "tests/support/Nets.h"
#include "tests/support/ProcessUsage.h"

using namespace kvx::test;

namespace {

std::string levelLine(int level) {
    return "Received SIGUSR2: Switched to debug level " + std::to_string(level);
}

struct OnSignalTurn : CCallbackBase {
    explicit OnSignalTurn(std::function<void()> function) : call(std::move(function)) {}
    void operator()() override { call(); }
    std::function<void()> call;
};

}  // namespace

// Wherever a signal finds the process, it takes effect between two events of the bus, and of the
// process nothing is left.
TEST(Signals, TakeEffectWhateverTheProcessIsDoing) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);  // what it may leave behind becomes ours
    Daemon daemon;
    const Home home(daemon.text());
    const auto connections = openDescriptors(daemon.pid());
    const auto files = home.files();
    struct Run {
        std::string where;
        int signal;
        std::unique_ptr<ChildProcess> host;
    };
    const TemporaryDirectory directory;
    const std::string goOn = directory.file("go on");
    std::vector<Run> runs;
    for (const char* where : {"starting", "loop", "callback", "poll"}) {
        for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGHUP, SIGUSR2}) {
            const std::vector<std::string> words = {where, "0", goOn};
            runs.push_back({where, signal, std::make_unique<ChildProcess>(KVX_SIGNAL_HOST, words)});
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
    EXPECT_TRUE(eventually([&] { return openDescriptors(daemon.pid()) == connections; }));
    EXPECT_EQ(home.files(), files);
    daemon.kill();
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process without a parent";
}

// A round of attempts to reach a daemon that is gone lasts eight seconds.
TEST(Signals, TakeEffectWhenTheDaemonHasGoneOrGoesWithThem) {
    for (const bool daemonGoesFirst : {true, false}) {
        SCOPED_TRACE(daemonGoesFirst);
        Daemon daemon;
        const Home home(daemon.text());
        ChildProcess host(KVX_SIGNAL_HOST, {"leave"});
        ASSERT_EQ(host.awaitOutput("ready"), "ready");
        host.kill(SIGUSR2);  // once it is served, the loop runs
        EXPECT_EQ(host.awaitOutput(levelLine(1)), levelLine(1));
        const auto connected = openDescriptors(host.pid());
        const auto isAlone = [&] { return openDescriptors(host.pid()) < connected; };
        const auto begin = std::chrono::steady_clock::now();
        if (!daemonGoesFirst) host.kill(SIGTERM);
        daemon.kill();
        if (daemonGoesFirst) {
            EXPECT_TRUE(eventually(isAlone));
            host.kill(SIGTERM);
        }
        EXPECT_EQ(host.wait(), 3) << "left in good order";
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(6));
    }
}

TEST(Signals, StepTheDebugLevelRoundAndAreTheHandlersUntilItStopsOrDies) {
    const Home home("-");
    ChildProcess stepped(KVX_SIGNAL_HOST, {"run"});
    ASSERT_EQ(stepped.awaitOutput("ready"), "ready");
    for (const int level : {1, 2, 3, 4, 0}) {
        stepped.kill(SIGUSR2);
        ASSERT_EQ(stepped.awaitOutput(levelLine(level)), levelLine(level));
    }
    struct Case {
        const char* what;
        std::vector<std::string> arguments;
        int signal;  // once that was said; 0: none
        int status;
        std::string said;
    };
    const std::string shutDown = "Shutdown message received!\nready\n";
    const std::string destroyed = "left\nunexpected - signal poller still running\n";
    for (const Case& one : {
             Case{"shut down inside the loop", {"shutdown"}, 0, 0, shutDown},
             Case{"left at SIGUSR1", {"leave"}, SIGUSR1, 3, "ready\nleft\n"},
             Case{"managed twice", {"again"}, SIGTERM, 0, "ready\n"},
             Case{"the system's after a stop", {"stop"}, SIGTERM, -SIGTERM, "stopped\n"},
             Case{"destroyed", {"destroy", "0"}, 0, 3, "left\n"},
             Case{"destroyed, at level one", {"destroy", "1"}, 0, 3, destroyed},
         }) {
        SCOPED_TRACE(one.what);
        ChildProcess host(KVX_SIGNAL_HOST, one.arguments);
        if (one.signal != 0) {
            ASSERT_NE(host.awaitOutput(one.said.substr(0, one.said.find('\n'))), "");
            host.kill(one.signal);
        }
        EXPECT_EQ(host.wait(), one.status);
        EXPECT_EQ(host.output(), one.said);
    }
}

// The leak checker sees whether what waits for the turn goes with the net.
TEST(SignalHandler, DropsCallbacksWhileItManagesNothingAndThoseWhoseTurnNeverComes) {
    const Home home("-");
    OnSignalTurn callback([] { ADD_FAILURE() << "its turn came"; });
    {
        TestNet net;
        for (CVekNet* const managed :
             {static_cast<CVekNet*>(nullptr), static_cast<CVekNet*>(&net)}) {
            CMOMSignalHandler handler;
            handler.manage(managed);
            EXPECT_TRUE(handler.runHandler(&callback));
            handler.stop();
        }
    }
    ErrorRecorder errors;
    CVekNet notOfTheBus;
    CMOMSignalHandler().manage(&notOfTheBus);
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CMOMSignalHandler", 0, ""}}));
    for (const int present : {4, 5, INT_MAX}) {
        const DebugLevel level(present);
        EXPECT_EQ(outputOf([] { CMOMSignalHandler().raiseDebugLevel(36); }), levelLine(0) + "\n");
    }
}

// Two signals in one poll: what the first one's callback ends, the second must not touch.
TEST(SignalHandler, ForgetsTheNextSignalOfAPollWhenTheFirstStopsOrDestroysIt) {
    const Home home("-");
    for (const bool destroys : {false, true}) {
        TestNet net;
        auto handler = std::make_unique<CMOMSignalHandler>();
        auto* const next = new OnSignalTurn([] { ADD_FAILURE() << "it was to be forgotten"; });
        int stops = 0;
        auto* const first = new OnSignalTurn([&] {
            ++stops;
            destroys ? handler.reset() : handler->stop();
        });
        net.hook = [&] {
            handler->manage(&net);
            CSignalHandler::Instance().add(2, first);
            CSignalHandler::Instance().add(35, next);
            for (const int signal : {2, 35, 36}) CSignalHandler::Instance().handleSignal(signal);
        };
        EXPECT_TRUE(runUntil(net, [&] { return stops == 1; }));
        EXPECT_EQ(__ZembraLix_Debug_Level, 0);
    }
}
