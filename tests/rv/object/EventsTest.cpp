// What each kind of event hands to its callback, and what ends it.

#include "rv/message/RvMsg.h"
#include "tests/rv/object/ObjectFixture.h"

namespace kvx::test {
namespace {

class Timer : public ObjectTest {};

TEST_F(Timer, OneShotIsSpentWhenItIsCalled) {
    OnTimer callback([&](RvTimer* timer) {
        EXPECT_FALSE(timer->isPending());
        EXPECT_TRUE(timer->resetInterval(1) == 3);
    });
    const std::unique_ptr<RvTimer> timer(session->newTimer(1, &callback, this));
    EXPECT_TRUE(timer->isPending());
    EXPECT_EQ(timer->isRepeating(), rv_FALSE);
    runUntil([&] { return callback.calls > 0; });
    settle();
    EXPECT_EQ(callback.calls, 1);
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

class Listener : public ObjectTest {};

TEST_F(Listener, HandsOverSubjectDatumAndReplySender) {
    std::string heard;
    OnData data([&](const char*, RvSender* replyTo, const RvDatum& datum, RvListener*) {
        const auto* message = dynamic_cast<const RvMsg*>(&datum);
        EXPECT_EQ(message != nullptr, datum.type() == RVMSG_MSG);
        long value = 0;
        if (message != nullptr) {
            EXPECT_TRUE(RvMsg(*message).get("n", value) == 0);
        }
        heard = datum.type() == RVMSG_STRING ? textOf(datum) : std::to_string(value);
        heard += std::string("/") + (replyTo == nullptr ? "none" : replyTo->subject());
    });
    const std::unique_ptr<RvListener> listener(session->newListener("_RV.LOCAL.>", &data, nullptr));
    deliver("one", "answer.here");
    EXPECT_EQ(heard, "one/answer.here");
    EXPECT_EQ(data.lastSubject, kSubject);
    deliver("two");
    EXPECT_EQ(heard, "two/none");
    RvMsg message;
    message.append("n", 42L);
    EXPECT_EQ(0, rv_Deliver(session->handle(), kSubject, nullptr, RVMSG_MSG, 0, message.data()));
    EXPECT_EQ(heard, "42/none");
    EXPECT_EQ(0, rv_Deliver(session->handle(), kSubject, nullptr, RVMSG_NONE, 0, nullptr));
    EXPECT_EQ(heard, "0/none") << "no payload";
}

TEST_F(Listener, TimesOutOnceAndOnlyWithoutAMessage) {
    OnData silent;
    OnData served;
    const std::unique_ptr<RvListener> one(
        session->newListener("_RV.LOCAL.NOBODY", 3, &silent, this));
    const std::unique_ptr<RvListener> two(session->newListener(kSubject, 3, &served, this));
    deliver("in time");
    settle();
    settle();
    EXPECT_EQ(silent.timeouts, 1);
    EXPECT_EQ(served.timeouts, 0);
    EXPECT_EQ(served.messages, 1);
}

TEST_F(Listener, WithoutItsCallbackCancelsAtTheNextMessageAndStaysAnObject) {
    auto data = std::make_unique<OnData>();
    std::unique_ptr<RvListener> listener(listen(*data));
    data.reset();
    deliver("cancels");
    EXPECT_STREQ(listener->subject(), kSubject);
    EXPECT_FALSE(listener->isInbox());
    OnData another;
    listener.reset(listen(another));
    EXPECT_EQ(session->newSender(nullptr), nullptr);
    listener.reset();
    EXPECT_TRUE(session->status() == 0) << "the result of the cancel";
}

class Signals : public ObjectTest {
  protected:
    void raiseAndRun() {
        ASSERT_EQ(0, std::raise(SIGUSR1));
        settle();
    }
};

TEST_F(Signals, ArriveInTheLoopAndMayDestroyThemselvesAndTheirSession) {
    std::unique_ptr<RvSignal> signal;
    OnSignal callback([&](RvSignal* caught) {
        EXPECT_EQ(caught->signal(), SIGUSR1);
        if (callback.calls == 1) return;
        signal.reset();
        session.reset();
    });
    signal.reset(session->newSignal(SIGUSR1, &callback, this));
    ASSERT_NE(signal, nullptr);
    raiseAndRun();
    EXPECT_EQ(callback.calls, 1);
    signal.reset();
    signal.reset(session->newSignal(SIGUSR1, &callback, this));
    ASSERT_NE(signal, nullptr) << "the slot is free again";
    raiseAndRun();
    EXPECT_EQ(callback.calls, 2);
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
