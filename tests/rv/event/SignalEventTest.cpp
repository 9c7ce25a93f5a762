#include "platform/Signals.h"
#include "tests/rv/event/LoopFixture.h"

namespace kvx::test {
namespace {

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
