#include "platform/Signals.h"

#include <array>
#include <atomic>
#include <csignal>

using namespace kvx::platform;

namespace {

std::atomic<int> caught = 0;

void count(int) {
    ++caught;
}

}  // namespace

TEST(Signals, StayHandledWaitWhileBlockedAndGoBackToTheDefault) {
    caught = 0;
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
    EXPECT_FALSE(exchangeSignalHandler(user1, nullptr, count)) << "ignored stays ignored";
    raiseSignal(user1);
    restoreDefaultSignal(user1);
    EXPECT_TRUE(exchangeSignalHandler(user1, nullptr, count));
    raiseSignal(user1);
    EXPECT_EQ(caught, 4);
    EXPECT_TRUE(exchangeSignalHandler(user1, count, nullptr));
    EXPECT_EXIT(raiseSignal(user1), testing::KilledBySignal(SIGUSR1), "");
}
