// Timers: what each kind does after it fired, and new intervals.

#include "tests/rv/object/ObjectFixture.h"

namespace kvx::test {
namespace {

class Timer : public ObjectTest {};

TEST_F(Timer, OneShotIsSpentWhenItIsCalled) {
    RvStatus inCall(99);
    OnTimer callback([&](RvTimer* timer) {
        EXPECT_FALSE(timer->isPending());
        inCall = timer->resetInterval(1);
    });
    const std::unique_ptr<RvTimer> timer(session->newTimer(1, &callback, this));
    EXPECT_TRUE(timer->isPending());
    EXPECT_EQ(timer->isRepeating(), rv_FALSE);
    runUntil([&] { return callback.calls > 0; });
    settle();
    EXPECT_EQ(callback.calls, 1);
    EXPECT_TRUE(inCall == 3);
}

TEST_F(Timer, RepeatsAndAdoptsANewInterval) {
    OnTimer callback;
    const std::unique_ptr<RvTimer> timer(session->newTimer(3'600'000, rv_TRUE, &callback, this));
    EXPECT_EQ(timer->interval(), 3'600'000U);
    EXPECT_TRUE(timer->resetInterval(1) == RvStatus::eventManager(0));
    EXPECT_EQ(timer->interval(), 1U);
    runUntil([&] { return callback.calls >= 3; });
    EXPECT_TRUE(timer->resetInterval(0) == RvStatus::eventManager(7));
}

TEST_F(Timer, WithoutItsCallbackARepeatingOneStopsAndAOneShotIsLeftAlone) {
    auto gone = std::make_unique<OnTimer>();
    const std::unique_ptr<RvTimer> repeating(session->newTimer(1, rv_TRUE, gone.get(), nullptr));
    const std::unique_ptr<RvTimer> oneShot(session->newTimer(1, gone.get(), nullptr));
    gone.reset();
    settle();
    EXPECT_TRUE(repeating->resetInterval(1) == 3);
    EXPECT_TRUE(oneShot->resetInterval(1) == RvStatus::eventManager(2));
}

}  // namespace
}  // namespace kvx::test
