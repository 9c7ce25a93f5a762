#include "platform/Signals.h"

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
    EXPECT_GE(lastSignalMs(), begin);
    restoreDefaultSignal(user1);
    EXPECT_FALSE(installSignalHandler(-1, count));
    EXPECT_FALSE(installSignalHandler(1000, count));
    EXPECT_EXIT(raiseSignal(user1), testing::KilledBySignal(SIGUSR1), "");
}
