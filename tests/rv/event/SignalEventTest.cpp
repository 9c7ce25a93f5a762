#include <csignal>
#include <utility>

#include "platform/Process.h"
#include "platform/Signals.h"
#include "tests/rv/event/LoopFixture.h"
#include "tests/support/SocketPair.h"

using kvx::platform::ManualClock;
using kvx::platform::raiseSignal;
using kvx::test::LoopFixture;
using kvx::test::SocketPair;

namespace {

class SignalEvent : public LoopFixture {
  protected:
    int tryAdd(rvevm_Manager where, int signal, rvevm_Callback callback = ignore) {
        rvevm_Id id = nullptr;
        return rvevm_AddSignal(where, &id, signal, callback, nullptr);
    }
    static bool hasDefaultHandling(int signal) {
        struct sigaction action {};
        ::sigaction(signal, nullptr, &action);
        return action.sa_handler == SIG_DFL;
    }

    ManualClock clock;
};

class SignalEventInRealTime : public LoopFixture {};

}  // namespace

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
    addTimer(10, "t", [] {
        for (const int signal : {SIGUSR2, SIGUSR1, SIGUSR2, SIGHUP}) raiseSignal(signal);
    });
    EXPECT_EQ(loopFor(20), "th12");
}

TEST_F(SignalEvent, AcceptsTwentyThreeAndNeverDispatchesIt) {
    addSignal(23, "never");
    addSignal(SIGUSR1, "1", [&] { stop(); });
    addTimer(0, "", [] {
        raiseSignal(23);
        raiseSignal(SIGUSR1);
    });
    EXPECT_EQ(loop(), "1");
    EXPECT_EQ(loopFor(5'000), "");
}

TEST_F(SignalEvent, KeepsPendingWhatAStopLeavesOver) {
    addSignal(SIGUSR1, "1", [&] { stop(); });
    addSignal(SIGUSR2, "2", [&] { stop(); });
    addTimer(0, "", [] {
        raiseSignal(SIGUSR2);
        raiseSignal(SIGUSR1);
    });
    EXPECT_EQ(loop(), "1");
    EXPECT_EQ(loop(), "2");
}

TEST_F(SignalEvent, RemovedByAnotherCallbackIsNotCalledAndHandledByDefault) {
    rvevm_Id second = nullptr;
    addSignal(SIGUSR1, "1", [&] { EXPECT_EQ(rvevm_RemoveSignal(manager, second), 0); });
    second = addSignal(SIGUSR2, "2");
    addTimer(0, "", [] {
        raiseSignal(SIGUSR1);
        raiseSignal(SIGUSR2);
    });
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

TEST_F(SignalEvent, MayDestroyTheManager) {
    const SocketPair pair;
    addIo(pair.near.get(), RVEVM_WRITE, "w");
    addSignal(SIGUSR1, "1", [&] { destroyInsideTheLoop(); });
    addSignal(SIGUSR2, "2");
    addTimer(0, "", [] {
        raiseSignal(SIGUSR1);
        raiseSignal(SIGUSR2);
    });
    EXPECT_EQ(loop(), "1");
}

TEST_F(SignalEventInRealTime, EndTheWaitOfALoopAtOnce) {
    const SocketPair pair;
    addIo(pair.near.get(), RVEVM_READ, "r");
    addSignal(SIGUSR1, "1", [&] { stop(); });
    std::atomic<bool> begun = false;
    addTimer(0, "t", [&] {
        begun = true;
        begun.notify_all();
    });
    std::thread sender([&] {
        begun.wait(false);
        kvx::platform::sendSignal(kvx::platform::processId(), SIGUSR1);
    });
    EXPECT_EQ(loop(), "t1");
    sender.join();
}
