// Programs, files, signals and the clock.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>

#include "platform/Clock.h"
#include "platform/File.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "platform/SignalDescriptor.h"
#include "platform/Signals.h"
#include "platform/Socket.h"
#include "tests/support/EnvironmentVariable.h"
#include "tests/support/SocketPair.h"
#include "tests/support/TemporaryDirectory.h"

using namespace kvx::platform;
using kvx::test::contentOf;
using kvx::test::EnvironmentVariable;
using kvx::test::TemporaryDirectory;

namespace {

Program shell(const std::string& script, const std::string& directory = "") {
    return {"sh", {"sh", "-c", script}, directory};
}

void awaitEnd(const Started& child) {
    EXPECT_NE(child.pid, 0U);
    siginfo_t info{};
    ::waitid(P_PID, static_cast<id_t>(child.pid), &info, WEXITED | WNOWAIT);
}

int exitStatusOf(const Started& child) {
    awaitEnd(child);
    return reap(child.pid).value_or(-1);
}

}  // namespace

TEST(Processes, KnowThemselves) {
    EXPECT_EQ(processId(), static_cast<unsigned long>(::getpid()));
    EXPECT_EQ(programName(processId()), "platform_test");
    EXPECT_TRUE(isExecutable(programDirectory() + "/platform_test"));
    EXPECT_EQ(programName(0), std::nullopt);
    EXPECT_EQ(programName(~0UL), std::nullopt);
    EXPECT_FALSE(userName().empty());
}

TEST(Memory, IsLimitedByTheGroupsOfTheProcessAndThoseAbove) {
    const TemporaryDirectory root;
    const auto limit = [&root](const std::string& group, const char* file, const char* text) {
        std::filesystem::create_directories(root.path() + group);
        std::ofstream(root.path() + group + '/' + file) << text << '\n';
    };
    const std::string membership = "4:cpu,memory:/old/deep\n0::/new/deep\n";
    EXPECT_EQ(groupMemoryLimit(membership, root.path()), 0U);
    limit("/new/deep", "memory.max", "max");
    limit("/new", "memory.max", "5000");
    EXPECT_EQ(groupMemoryLimit(membership, root.path()), 5000U);
    limit("/memory/old/deep", "memory.limit_in_bytes", "4000");
    EXPECT_EQ(groupMemoryLimit(membership, root.path()), 4000U);
    EXPECT_GT(availableMemoryBytes(), 1U << 24);
}

TEST(Children, RunWithTheirArgumentsInTheirDirectory) {
    const TemporaryDirectory directory;
    EXPECT_EQ(exitStatusOf(startChild(shell("pwd -P > out; exit 7", directory.path()))), 7);
    EXPECT_EQ(contentOf(directory.file("out")),
              std::filesystem::canonical(directory.path()).string() + "\n");
    EXPECT_EQ(exitStatusOf(startChild(shell("kill -9 $$"))), 128 + SIGKILL);
}

TEST(Children, InheritNoDescriptorBlockedSignalOrHandling) {
    const int leaky = ::fcntl(STDERR_FILENO, F_DUPFD, 100);  // not close-on-exec
    ASSERT_GE(leaky, 100);
    ::signal(SIGUSR1, SIG_IGN);
    const std::string script =
        "test ! -e /proc/self/fd/" + std::to_string(leaky) + " || exit 1; kill -USR1 $$; exit 2";
    EXPECT_EQ(exitStatusOf(startChild(shell(script))), 128 + SIGUSR1);
    ::signal(SIGUSR1, SIG_DFL);
    ::close(leaky);
}

TEST(Children, ThatCannotRunAreReported) {
    const TemporaryDirectory directory;
    std::ofstream(directory.file("plain")) << "no program";
    for (const auto start : {+[](const Program& p) { return startChild(p); },
                             +[](const Program& p) { return startDaemon(p, "test"); }}) {
        const EnvironmentVariable state("XDG_STATE_HOME", directory.path());
        EXPECT_EQ(start({directory.file("missing"), {"missing"}, ""}).error, ENOENT);
        EXPECT_EQ(start({directory.file("plain"), {"plain"}, ""}).error, EACCES);
        EXPECT_EQ(start({"kvx-no-such-program", {"x"}, ""}).error, ENOENT);
        EXPECT_EQ(start(shell("exit 0", directory.file("missing"))).error, ENOENT);
        EXPECT_EQ(start({directory.file("plain"), {"plain"}, ""}).pid, 0U);
    }
}

TEST(Children, AreKilledWhenTheyDoNotListenAndNobodyElseIs) {
    const TemporaryDirectory directory;
    for (const auto handling : {SIG_DFL, SIG_IGN}) {  // ignored, ends leave nothing to reap
        const auto before = std::signal(SIGCHLD, handling);
        const Started polite = startChild(shell("exec sleep 1000"));
        EXPECT_TRUE(killAndReap(polite.pid, 60'000));
        EXPECT_FALSE(killAndReap(polite.pid));
        std::signal(SIGCHLD, before);
    }
    const Started stubborn =
        startChild(shell("trap '' TERM; echo > ready; exec sleep 1000", directory.path()));
    while (!isReadable(directory.file("ready"))) std::this_thread::yield();
    EXPECT_EQ(reap(stubborn.pid), std::nullopt);
    EXPECT_TRUE(killAndReap(stubborn.pid, 1));
    const Started ended = startChild(shell("exit 0"));
    awaitEnd(ended);
    EXPECT_TRUE(killAndReap(ended.pid));
    EXPECT_EQ(reap(0), std::nullopt);
    for (const unsigned long other : {0UL, static_cast<unsigned long>(::getppid())})
        EXPECT_FALSE(killAndReap(other));
    for (const unsigned long pid : {0UL, ~0UL, processId()})
        EXPECT_EQ(sendSignal(pid, 0), pid == processId());
}

TEST(Daemons, LiveInASessionOfTheirOwnAndWriteToTheLog) {
    const TemporaryDirectory directory;
    const EnvironmentVariable state("XDG_STATE_HOME", directory.path());
    const std::string log = directory.path() + "/kvxmom/test.log";
    // Standard input is empty; the sixth field of stat is the session.
    const std::string script =
        "read line || echo no input; echo error >&2; cut -d' ' -f6 /proc/self/stat; echo end";
    const Started daemon = startDaemon(shell(script), "test");
    ASSERT_NE(daemon.pid, 0U) << daemon.error;
    EXPECT_EQ(::waitpid(static_cast<pid_t>(daemon.pid), nullptr, WNOHANG), -1);  // no child of ours
    while (contentOf(log).find("end\n") == std::string::npos) std::this_thread::yield();
    std::istringstream words(contentOf(log));
    std::string no, input, error;
    long session = 0;
    words >> no >> input >> error >> session;
    EXPECT_EQ(no + input + error, "noinputerror");
    EXPECT_NE(session, ::getsid(0));
    EXPECT_NE(session, 0);
}

TEST(Files, AreFoundOnThePathByTheirRights) {
    const TemporaryDirectory directory;
    std::ofstream(directory.file("tool")) << "#!/bin/sh\n";
    const EnvironmentVariable path("PATH", "/nonexistent:" + directory.path());
    EXPECT_EQ(findOnPath("tool"), std::nullopt);
    std::filesystem::permissions(directory.file("tool"), std::filesystem::perms::owner_all);
    EXPECT_EQ(findOnPath("tool"), directory.file("tool"));
    EXPECT_FALSE(isExecutable(directory.path()));
    EXPECT_FALSE(isReadable(directory.file("missing")));
}

TEST(StateDirectory, IsTheUsersAndCreated) {
    const TemporaryDirectory home;
    const EnvironmentVariable homeVariable("HOME", home.path());
    {
        const EnvironmentVariable relative("XDG_STATE_HOME", "relative/is/ignored");
        EXPECT_EQ(stateDirectory(), home.path() + "/.local/state/kvxmom");
    }
    const EnvironmentVariable given("XDG_STATE_HOME", home.path() + "/state");
    EXPECT_EQ(stateDirectory(), home.path() + "/state/kvxmom");
    EXPECT_TRUE(std::filesystem::is_directory(stateDirectory()));
    std::ofstream(home.file("file")) << "in the way";
    const EnvironmentVariable blocked("XDG_STATE_HOME", home.file("file"));
    EXPECT_EQ(stateDirectory(), "");
}

using namespace kvx::platform;

namespace {

std::atomic<int> caught = 0;

void count(int) {
    ++caught;
}

}  // namespace

TEST(Signals, StayHandledWaitWhileBlockedAndGoBackToTheDefault) {
    caught = 0;
    const Milliseconds begin = monotonicMs();
    EXPECT_LT(lastSignalMs(), begin);
    const int user1 = signal_number::user1();
    const std::array blocked = {user1};
    ASSERT_TRUE(installSignalHandler(user1, count));
    EXPECT_TRUE(raiseSignal(user1));
    EXPECT_TRUE(raiseSignal(user1));
    EXPECT_EQ(caught, 2);
    blockSignals(blocked);
    EXPECT_TRUE(isSignalBlocked(user1));
    raiseSignal(user1);
    EXPECT_EQ(caught, 2);
    unblockSignals(blocked);
    EXPECT_EQ(caught, 3);
    EXPECT_FALSE(isSignalBlocked(user1));
    ignoreSignal(user1);
    raiseSignal(user1);
    EXPECT_EQ(caught, 3);
    {
        const SignalDescriptor read(blocked);
        raiseSignal(user1);
        EXPECT_EQ(read.next(), user1);
        EXPECT_EQ(read.next(), 0);
    }
    EXPECT_TRUE(isSignalBlocked(user1));
    unblockSignals(blocked);
    EXPECT_GE(lastSignalMs(), begin);
    restoreDefaultSignal(user1);
    EXPECT_FALSE(installSignalHandler(-1, count));
    EXPECT_FALSE(installSignalHandler(1000, count));
    EXPECT_EXIT(raiseSignal(user1), testing::KilledBySignal(SIGUSR1), "");
}

using namespace kvx::platform;

TEST(Clock, FallsBackToTheWallClockForGood) {
    static int reads = 0;
    reads = 0;
    setMonotonicReaderForTests([](Milliseconds& now) {
        now = 5;
        return ++reads != 2;
    });
    EXPECT_EQ(monotonicMs(), 5);
    const Milliseconds before = wallMilliseconds();
    EXPECT_GE(monotonicMs(), before);
    EXPECT_GE(monotonicMs(), before);  // although the reader works again
    EXPECT_EQ(reads, 2);
    setMonotonicReaderForTests(nullptr);
    EXPECT_GE(wallSeconds(), before / 1'000);
}

TEST(Clock, SteppedByHandPassesWithTheWaitsOfTheProgram) {
    const kvx::test::SocketPair pair;
    {
        ManualClock clock(1'000);
        clock.advance(500);
        sleepMs(2'000);
        sleepMs(-5);
        EXPECT_EQ(monotonicMs(), 3'500);
        EXPECT_EQ(waitSocket(pair.near.get(), kReadable, 60'000).ready, 0U);
        EXPECT_EQ(monotonicMs(), 63'500);
        EXPECT_EQ(waitSocket(pair.near.get(), kWritable, 60'000).ready, unsigned{kWritable});
        EXPECT_EQ(monotonicMs(), 63'500);  // ready at once: no time has passed
        clock.setWaits(ManualClock::Waits::Block);
        sleepMs(1);
        EXPECT_EQ(monotonicMs(), 63'500);
    }
    const Milliseconds now = monotonicMs();
    EXPECT_LE(now, monotonicMs());
}
