// Caught signals, and the slot that stays taken when its callback died.

#include <csignal>

#include "tests/rv/object/ObjectFixture.h"

namespace kvx::test {
namespace {

class Signals : public ObjectTest {
  protected:
    void raiseAndRun() {
        ASSERT_EQ(0, std::raise(SIGUSR1));
        settle();
    }
};

TEST_F(Signals, ArriveInTheLoopUntilTheObjectIsDeleted) {
    OnSignal callback;
    std::unique_ptr<RvSignal> signal(session->newSignal(SIGUSR1, &callback, this));
    ASSERT_NE(signal, nullptr);
    raiseAndRun();
    EXPECT_EQ(callback.calls, 1);
    EXPECT_EQ(signal->signal(), SIGUSR1);
    signal.reset();
    signal.reset(session->newSignal(SIGUSR1, &callback, this));
    EXPECT_NE(signal, nullptr) << "the slot is free again";
}

TEST_F(Signals, MayDestroyThemselvesAndTheirSession) {
    std::unique_ptr<RvSignal> signal;
    OnSignal callback([&](RvSignal*) {
        signal.reset();
        session.reset();
    });
    signal.reset(session->newSignal(SIGUSR1, &callback, nullptr));
    raiseAndRun();
    EXPECT_EQ(callback.calls, 1);
}

TEST_F(Signals, WhoseCallbackDiedKeepTheirSlotUntilTheSessionCloses) {
    auto dead = std::make_unique<OnSignal>();
    OnSignal alive;
    std::unique_ptr<RvSignal> signal(session->newSignal(SIGUSR1, dead.get(), nullptr));
    dead.reset();
    raiseAndRun();
    signal.reset();
    raiseAndRun();
    EXPECT_EQ(session->newSignal(SIGUSR1, &alive, nullptr), nullptr);
    EXPECT_TRUE(session->status() == RvStatus::eventManager(6));
    session.reset();
    signal.reset(runner->newSignal(SIGUSR1, &alive, nullptr));
    ASSERT_NE(signal, nullptr);
    raiseAndRun();
    EXPECT_EQ(alive.calls, 1);
}

}  // namespace
}  // namespace kvx::test
