// The loop, and the sockets and signals that it watches.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/Process.h"
#include "platform/Signals.h"
#include "rv/event/EventManagerExtras.h"
#include "rv/event/IoTable.h"
#include "tests/rv/event/LoopFixture.h"
#include "tests/support/SocketPair.h"

namespace kvx::test {
namespace {

using platform::ManualClock;

class EventManager : public LoopFixture {
  protected:
    ManualClock clock;
};

class EventManagerInRealTime : public LoopFixture {
  protected:
    // Runs the loop until another thread, which begins when it runs, ends it.
    std::string loopUntil(const Action& end) {
        std::atomic<bool> begun = false;
        addTimer(0, "a", [&] { begun = true; });
        std::thread other([&] {
            begun.wait(false);
            end();
        });
        addTimer(0, "b", [&] { begun.notify_all(); });
        const std::string called = loop();
        other.join();
        return called;
    }
};

TEST(ManagerHandle, ThatIsNullDestroyedOrMadeUpNamesNothingForEver) {
    rvevm_Manager manager = nullptr;
    std::vector<rvevm_Manager> handles = {nullptr, reinterpret_cast<rvevm_Manager>(&manager)};
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(rvevm_Create(&manager), 0);
        ASSERT_EQ(rvevm_Destroy(manager), 0);
        handles.push_back(manager);
    }
    ASSERT_EQ(rvevm_Create(&manager), 0);
    rvevm_Id id = nullptr;
    const auto callback = [](void*, void*, int, void*) {};
    for (rvevm_Manager handle : handles) {
        EXPECT_EQ(rvevm_Destroy(handle), 10);
        EXPECT_EQ(rvevm_MainLoop(handle), 10);
        EXPECT_EQ(rvevm_Stop(handle), 10);
        EXPECT_EQ(rvevm_AddTimer(handle, &id, 1, callback, nullptr), 10);
        EXPECT_EQ(rvevm_AddIO(handle, &id, 0, RVEVM_READ, callback, nullptr), 10);
        EXPECT_EQ(rvevm_RemoveSignal(handle, id), 10);
    }
    EXPECT_EQ(rvevm_Destroy(manager), 0);
    EXPECT_EQ(rvevm_Create(nullptr), 2);
}

TEST_F(EventManager, RefusesBadTimers) {
    rvevm_Id id = nullptr;
    EXPECT_EQ(rvevm_AddTimer(manager, nullptr, 1, ignore, nullptr), 2);
    EXPECT_EQ(rvevm_AddTimer(manager, &id, 1, nullptr, nullptr), 5);
    EXPECT_EQ(rvevm_AddRepeatTimer(manager, &id, 0, ignore, nullptr), 7);
    ASSERT_EQ(rvevm_AddRepeatTimer(manager, &id, 9, ignore, nullptr), 0);
    EXPECT_EQ(rvevm_ResetTimer(manager, id, 0), 7);
    EXPECT_EQ(rvevm_RemoveIO(manager, id), 2);  // an id of another kind
    EXPECT_EQ(rvevm_RemoveTimer(manager, id), 0);
    EXPECT_EQ(rvevm_RemoveTimer(manager, id), 2);
    EXPECT_EQ(rvevm_ResetTimer(manager, id, 5), 2);
}

TEST_F(EventManager, SleepsASecondAStepWithNothingRegistered) {
    const auto start = clock.now();
    std::thread stopper([&] {
        while (clock.now() < start + 3'000) std::this_thread::yield();
        rvevm_Stop(manager);
    });
    EXPECT_EQ(rvevm_MainLoop(manager), 0);
    stopper.join();
    EXPECT_EQ((clock.now() - start) % 1'000, 0);
}

TEST_F(EventManager, CallsEveryDueTimerEvenWhenOneStopsTheLoop) {
    addTimer(5, "a", [&] { stop(); });
    addTimer(5, "b");
    addTimer(6, "c", [&] { stop(); });
    EXPECT_EQ(loop(), "ab");
    EXPECT_EQ(loop(), "c");
}

TEST_F(EventManager, RefusesASecondLoopInsideItsOwn) {
    addTimer(0, "a", [&] {
        EXPECT_TRUE(event::isLooping(manager));
        EXPECT_EQ(rvevm_MainLoop(manager), 10);
        stop();
        EXPECT_EQ(rvevm_MainLoop(manager), 10);  // stopped, but not returned
    });
    EXPECT_EQ(loop(), "a");
    EXPECT_FALSE(event::isLooping(manager));
}

TEST_F(EventManager, DestroyedByAnyCallbackCallsNothingMoreAndGoesWithTheLoop) {
    const SocketPair pair;
    const Action destroy = [this] {
        rvevm_Manager dying = manager;
        destroyInsideTheLoop();
        rvevm_Id id = nullptr;
        EXPECT_EQ(rvevm_AddTimer(dying, &id, 1, ignore, nullptr), 10);
    };
    addTimer(0, "t", destroy);
    addTimer(0, "never");
    addIo(pair.near.get(), RVEVM_WRITE, "never");
    EXPECT_EQ(loop(), "t");
    ASSERT_EQ(rvevm_Create(&manager), 0);
    pair.farSends("x");
    addIo(pair.near.get(), RVEVM_READ, "r", destroy);
    addIo(pair.near.get(), RVEVM_WRITE, "never");
    EXPECT_EQ(loop(), "r");
    ASSERT_EQ(rvevm_Create(&manager), 0);
    addSignal(SIGUSR1, "1", destroy);
    addSignal(SIGUSR2, "never");
    addIo(pair.near.get(), RVEVM_WRITE, "never");
    addTimer(0, "", [] {
        for (const int signal : {SIGUSR1, SIGUSR2}) platform::raiseSignal(signal);
    });
    EXPECT_EQ(loop(), "1");
}

TEST_F(EventManagerInRealTime, AnotherThreadOrASignalEndsEveryWait) {
    const SocketPair pair;
    const Action stopIt = [this] { stop(); };
    EXPECT_EQ(loopUntil(stopIt), "ab");
    addIo(pair.near.get(), RVEVM_READ, "r");
    addTimer(3'600'000, "late");
    EXPECT_EQ(loopUntil(stopIt), "ab");
    addSignal(SIGUSR1, "1", stopIt);
    EXPECT_EQ(loopUntil([] { platform::sendSignal(platform::processId(), SIGUSR1); }), "ab1");
}

TEST(SharedManager, ForgetsAManagerThatWasDestroyed) {
    int code = -1;
    rvevm_Manager first = event::acquireSharedManager(code);
    ASSERT_EQ(rvevm_Destroy(first), 0);
    rvevm_Manager second = event::acquireSharedManager(code);
    ASSERT_NE(second, nullptr);
    event::releaseSharedManager(second);
}

using event::IoTable;
using platform::ManualClock;
using platform::Socket;
namespace socket_error = platform::socket_error;

class IoEvent : public LoopFixture {
  protected:
    int tryAdd(unsigned socket, int condition, rvevm_Callback callback = ignore) {
        rvevm_Id id = nullptr;
        return rvevm_AddIO(manager, &id, socket, static_cast<rvevm_IoEventType>(condition),
                           callback, nullptr);
    }
    static unsigned number(const Socket& socket) { return static_cast<unsigned>(socket.get()); }

    ManualClock clock;
    SocketPair pair;
};

// Another descriptor of the same socket, at `lowest` or above.
Socket duplicate(const Socket& socket, int lowest) {
    return Socket(::fcntl(socket.get(), F_DUPFD_CLOEXEC, lowest));
}

bool allowDescriptors(rlim_t count) {
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::max(limit.rlim_cur, std::min(count, limit.rlim_max));
    return ::setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= count;
}

TEST_F(IoEvent, RefusesBadArgumentsInTheirOrder) {
    const unsigned near = number(pair.near);
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_CLOEXEC), 0);
    EXPECT_EQ(rvevm_AddIO(manager, nullptr, near, RVEVM_READ, nullptr, nullptr), 2);
    EXPECT_EQ(tryAdd(near, 0, nullptr), 5);
    EXPECT_EQ(tryAdd(static_cast<unsigned>(pipe[0]), RVEVM_READ), 3);
    EXPECT_EQ(tryAdd(0xFFFFFFFFU, RVEVM_READ), 3);
    EXPECT_EQ(tryAdd(static_cast<unsigned>(pipe[0]), 8), 3);
    for (const int condition : {0, 3, 8, -1}) EXPECT_EQ(tryAdd(near, condition), 4);
    EXPECT_EQ(tryAdd(near, RVEVM_READ), 0);
    EXPECT_EQ(tryAdd(near, RVEVM_READ), 3);
    EXPECT_EQ(tryAdd(near, RVEVM_WRITE), 0);
    ::close(pipe[0]);
    ::close(pipe[1]);
}

TEST_F(IoEvent, CallsReadableThenWritableThenExceptionEachByAscendingSocket) {
    const SocketPair other;
    pair.farSends("x");
    other.farSends("x");
    ASSERT_EQ(::send(other.far.get(), "!", 1, MSG_OOB), 1);
    ASSERT_EQ(platform::waitSocket(other.near.get(), platform::kException, -1).ready,
              unsigned{platform::kException});
    ASSERT_LT(pair.near.get(), other.near.get());
    addIo(other.near.get(), RVEVM_EXCEPTION, "e", [&] { stop(); });
    addIo(other.near.get(), RVEVM_WRITE, "w");
    addIo(other.near.get(), RVEVM_READ, "2");
    addIo(pair.near.get(), RVEVM_READ, "1");
    EXPECT_EQ(loop(), "12we");
}

TEST_F(IoEvent, WaitsForTheTimersUntilASocketIsReadyOrItsPeerIsGone) {
    addIo(pair.near.get(), RVEVM_READ, "r", [&] { stop(); });
    addTimer(700, "t", [&] { pair.far.reset(); });
    const auto start = clock.now();
    EXPECT_EQ(loop(), "tr");
    EXPECT_EQ(clock.now() - start, 700);
}

TEST_F(IoEvent, DoesNotCallAnEntryThatWasRemovedWhileItWaited) {
    SocketPair other;
    pair.farSends("x");
    other.farSends("x");
    rvevm_Id second = nullptr;
    rvevm_Id self = nullptr;
    self = addIo(pair.near.get(), RVEVM_READ, "1", [&] {
        EXPECT_EQ(rvevm_RemoveIO(manager, self), 0);
        EXPECT_EQ(rvevm_RemoveIO(manager, second), 0);
        // Another entry takes over the number of the socket that was found ready.
        addIo(other.near.get(), RVEVM_READ, "new", [&] { stop(); });
    });
    second = addIo(other.near.get(), RVEVM_READ, "2");
    addIo(other.near.get(), RVEVM_WRITE, "w");
    EXPECT_EQ(loop(), "1wnew");
}

TEST_F(IoEvent, StopsCallingWhenACallbackStopsTheLoopAndGoesOnInTheNext) {
    pair.farSends("x");
    addIo(pair.near.get(), RVEVM_READ, "r", [&] { stop(); });
    addIo(pair.near.get(), RVEVM_WRITE, "w", [&] { stop(); });
    EXPECT_EQ(loop(), "r");
    EXPECT_EQ(loop(), "r");
}

TEST_F(IoEvent, MadeReadyIsCalledOnceInTheNextStepWithoutAWait) {
    rvevm_Id reader = nullptr;
    int calls = 0;
    reader = addIo(pair.near.get(), RVEVM_READ, "r", [&] {
        if (++calls == 3) return;
        EXPECT_EQ(event::makeReady(manager, reader), 0);
    });
    EXPECT_EQ(event::makeReady(manager, reader), 0);
    EXPECT_EQ(event::makeReady(manager, reader), 0);
    const auto start = clock.now();
    addTimer(1, "t", [&] { EXPECT_EQ(clock.now() - start, 1); });
    EXPECT_EQ(loopFor(500), "rrrt");
    EXPECT_EQ(event::makeReady(manager, nullptr), 2);
    EXPECT_EQ(event::makeReady(manager, reader), 0);
    EXPECT_EQ(rvevm_RemoveIO(manager, reader), 0);
    EXPECT_EQ(loopFor(500), "");  // what is left over dies with its entry
}

TEST_F(IoEvent, WhoIsMadeReadyAgainAndAgainStarvesNobody) {
    const SocketPair other;
    int calls = 0;
    rvevm_Id busy = nullptr;
    busy = addIo(pair.near.get(), RVEVM_READ, "b", [&] {
        if (++calls == 3) other.farSends("x");
        EXPECT_EQ(event::makeReady(manager, busy), 0);
    });
    addIo(other.near.get(), RVEVM_READ, "o", [&] { stop(); });
    EXPECT_EQ(event::makeReady(manager, busy), 0);
    EXPECT_LT(loop().size(), 3U + 8U + 2U);
}

TEST_F(IoEvent, MadeReadyStaysSoWhenTheLoopStopsBeforeItsTurn) {
    const SocketPair silent;
    pair.farSends("x");
    ASSERT_LT(pair.near.get(), silent.near.get());
    rvevm_Id first = nullptr;
    first = addIo(pair.near.get(), RVEVM_READ, "1", [&] {
        EXPECT_EQ(rvevm_RemoveIO(manager, first), 0);
        stop();
    });
    rvevm_Id second = addIo(silent.near.get(), RVEVM_READ, "2");
    EXPECT_EQ(event::makeReady(manager, second), 0);
    EXPECT_EQ(loop(), "1");
    EXPECT_EQ(loopFor(500), "2");
}

TEST_F(IoEvent, WatchesAThousandSocketsWhateverTheirNumbers) {
    ASSERT_TRUE(allowDescriptors(2'100)) << "needs 2,100 descriptors";
    std::vector<Socket> sockets;
    std::string everyOne;
    for (int i = 0; i < 1'024; ++i) {
        sockets.push_back(duplicate(pair.near, 1'000));
        ASSERT_TRUE(sockets.back());
        addIo(sockets.back().get(), RVEVM_READ, std::to_string(i) + " ",
              [&, i] { i == 1'023 ? stop() : void(); });
        everyOne += std::to_string(i) + " ";
    }
    sockets.push_back(duplicate(pair.near, 1'000));
    EXPECT_EQ(tryAdd(number(sockets.back()), RVEVM_READ), 8);
    EXPECT_EQ(tryAdd(number(sockets.back()), RVEVM_EXCEPTION), 0);
    pair.farSends("x");
    EXPECT_EQ(loop(), everyOne);
}

TEST_F(IoEvent, ReportsAClosedSocketAndServesTheOthers) {
    SocketPair other;
    pair.farSends("x");
    addIo(other.near.get(), RVEVM_READ, "closed");
    addIo(pair.near.get(), RVEVM_READ, "r", [&] { stop(); });
    other.near.reset();
    testing::internal::CaptureStderr();
    EXPECT_EQ(loop(), "r");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "select error: 10038 (The descriptor is not a socket)\n");
}

TEST_F(IoEvent, LetsEveryReaderDiscoverThatTheNetworkIsDown) {
    platform::WakeUp wakeUp;
    IoTable table(wakeUp);
    rvevm_Id reader = nullptr;
    rvevm_Id writer = nullptr;
    ASSERT_EQ(table.add(&reader, number(pair.near), RVEVM_READ, ignore, nullptr), 0);
    ASSERT_EQ(table.add(&writer, number(pair.near), RVEVM_WRITE, ignore, nullptr), 0);
    testing::internal::CaptureStderr();
    table.collectReady(socket_error::kNetworkDown);
    IoTable::Ready ready{};
    ASSERT_TRUE(table.nextReady(ready));
    EXPECT_EQ(ready.id, reader);
    EXPECT_FALSE(table.nextReady(ready));
    table.clearReady();
    table.collectReady(socket_error::kInterrupted);
    EXPECT_FALSE(table.nextReady(ready));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

using platform::ManualClock;
using platform::raiseSignal;

class SignalEvent : public LoopFixture {
  protected:
    int tryAdd(rvevm_Manager where, int signal, rvevm_Callback callback = ignore) {
        rvevm_Id id = nullptr;
        return rvevm_AddSignal(where, &id, signal, callback, nullptr);
    }
    // A timer of the loop's first step raises them.
    void raiseInTheLoop(const std::vector<int>& signals) {
        addTimer(0, "", [signals] {
            for (const int signal : signals) raiseSignal(signal);
        });
    }
    static bool hasDefaultHandling(int signal) {
        struct sigaction action {};
        ::sigaction(signal, nullptr, &action);
        return action.sa_handler == SIG_DFL;
    }

    ManualClock clock;
};

TEST_F(SignalEvent, RefusesBadArguments) {
    EXPECT_EQ(rvevm_AddSignal(manager, nullptr, -1, nullptr, nullptr), 2);
    EXPECT_EQ(tryAdd(manager, -1), 6);
    EXPECT_EQ(tryAdd(manager, 24), 6);
    EXPECT_EQ(tryAdd(manager, SIGUSR1, nullptr), 5);
    EXPECT_EQ(tryAdd(manager, SIGKILL), 9);
    EXPECT_EQ(tryAdd(manager, 0), 9);
    EXPECT_EQ(tryAdd(manager, SIGUSR1), 0);
    EXPECT_EQ(tryAdd(manager, SIGUSR1), 6);
}

TEST_F(SignalEvent, DispatchesInAscendingOrderOnceHoweverOftenCaught) {
    addSignal(SIGUSR2, "2");
    addSignal(SIGUSR1, "1");
    addSignal(SIGHUP, "h");
    raiseInTheLoop({SIGUSR2, SIGUSR1, SIGUSR2, SIGHUP});
    EXPECT_EQ(loopFor(20), "h12");
}

TEST_F(SignalEvent, KeepsPendingWhatAStopLeavesOverAndNeverDispatchesTwentyThree) {
    addSignal(23, "never");
    addSignal(SIGUSR1, "1", [&] { stop(); });
    addSignal(SIGUSR2, "2", [&] { stop(); });
    raiseInTheLoop({23, SIGUSR2, SIGUSR1});
    EXPECT_EQ(loop(), "1");
    EXPECT_EQ(loop(), "2");
    EXPECT_EQ(loopFor(5'000), "");
}

TEST_F(SignalEvent, RemovedByAnotherCallbackIsNotCalledAndHandledByDefault) {
    rvevm_Id second = nullptr;
    addSignal(SIGUSR1, "1", [&] { EXPECT_EQ(rvevm_RemoveSignal(manager, second), 0); });
    second = addSignal(SIGUSR2, "2");
    raiseInTheLoop({SIGUSR1, SIGUSR2});
    EXPECT_EQ(loopFor(10), "1");
    EXPECT_TRUE(hasDefaultHandling(SIGUSR2));
    EXPECT_FALSE(hasDefaultHandling(SIGUSR1));
    EXPECT_EQ(rvevm_RemoveSignal(manager, second), 2);
}

TEST_F(SignalEvent, BelongToOneManagerUntilItDies) {
    rvevm_Manager other = nullptr;
    ASSERT_EQ(rvevm_Create(&other), 0);
    addSignal(SIGUSR1, "1");
    EXPECT_EQ(tryAdd(other, SIGUSR2), 9);
    EXPECT_EQ(rvevm_Destroy(std::exchange(manager, nullptr)), 0);
    EXPECT_TRUE(hasDefaultHandling(SIGUSR1));
    EXPECT_EQ(tryAdd(other, SIGUSR2), 0);
    EXPECT_EQ(rvevm_Destroy(other), 0);
}

}  // namespace
}  // namespace kvx::test
