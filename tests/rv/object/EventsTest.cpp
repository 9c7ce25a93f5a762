// Events: what each kind hands to its callback, what may die meanwhile, and what creations refuse.

#include <sys/socket.h>
#include <unistd.h>

#include "rv/message/RvMsg.h"
#include "rv/session/rvSessionHooks.h"
#include "tests/rv/object/ObjectFixture.h"
#include "tests/support/ScriptedDaemon.h"

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

// Every kind of event, and everything that may die inside its callback. The sanitizers say whether
// anything freed was read; the tests say who is still called.

enum class Kind : std::uint8_t { Message, Timeout, OneShot, Repeating, Io };

class EventLifetime : public ObjectTest, public testing::WithParamInterface<Kind> {
  protected:
    EventLifetime() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sockets_)); }
    ~EventLifetime() override {
        for (auto& event : events_) event.reset();
        for (const int socket : sockets_) ::close(socket);
    }

    void create(int index) {
        const auto i = static_cast<std::size_t>(index);
        const auto call = [this, index](auto*... /*event*/) {
            ++calls[index];
            if (const auto action = inCallback) action(index);
        };
        if (GetParam() == Kind::OneShot || GetParam() == Kind::Repeating) {
            auto timer = std::make_unique<OnTimer>(call);
            const auto repeat = GetParam() == Kind::Repeating ? rv_TRUE : rv_FALSE;
            events_[i].reset(session->newTimer(2, repeat, timer.get(), nullptr));
            callbacks_[i] = std::move(timer);
        } else if (GetParam() == Kind::Io) {
            auto io = std::make_unique<OnIO>(call);
            const auto socket = static_cast<unsigned>(sockets_[index]);
            events_[i].reset(session->newIO(socket, RVEVM_WRITE, io.get(), nullptr));
            callbacks_[i] = std::move(io);
        } else {
            auto data = std::make_unique<OnData>([call](auto&&...) { call(); });
            data->callOnTimeout = call;
            const unsigned long timeout = GetParam() == Kind::Timeout ? 2 : 0;
            events_[i].reset(session->newListener(kSubject, timeout, data.get(), nullptr));
            callbacks_[i] = std::move(data);
        }
        ASSERT_NE(events_[i], nullptr);
    }

    void comeDue() {
        if (GetParam() == Kind::Message && session) deliver("x", "reply.to");
        settle();
    }

    std::function<void(int)> inCallback;
    int calls[2] = {};
    std::unique_ptr<RvEvent> events_[2];
    std::unique_ptr<RvCallback> callbacks_[2];

  private:
    int sockets_[2] = {};
};

std::string nameOf(const testing::TestParamInfo<Kind>& info) {
    static const char* const names[] = {"Message", "Timeout", "OneShot", "Repeating", "Io"};
    return names[static_cast<int>(info.param)];
}

TEST_P(EventLifetime, IsCalledOnceWhenItsCallbackDestroysWhateverIsNeeded) {
    const std::function<void(int)> deaths[] = {
        [this](int) { events_[0].reset(); },
        [this](int) { callbacks_[0].reset(); },
        [this](int) {
            events_[0].reset();
            session.reset();
            callbacks_[0].reset();
        },
    };
    for (const auto& death : deaths) {
        calls[0] = 0;
        create(0);
        inCallback = death;
        comeDue();
        comeDue();
        EXPECT_EQ(calls[0], 1);
        if (events_[0]) {
            EXPECT_EQ(events_[0]->callback() == nullptr, callbacks_[0] == nullptr);
        }
        events_[0].reset();
    }
}

TEST_P(EventLifetime, DestroysAnotherOneThatIsDue) {
    create(0);
    create(1);
    inCallback = [this](int index) {
        events_[1 - index].reset();
        inCallback = nullptr;
    };
    comeDue();
    comeDue();
    EXPECT_EQ(std::min(calls[0], calls[1]), 0);
    EXPECT_GE(calls[0] + calls[1], 1);
}

TEST_P(EventLifetime, DestroysItsSession) {
    create(0);
    create(1);
    inCallback = [this](int) { session.reset(); };
    comeDue();
    comeDue();
    EXPECT_EQ(calls[0] + calls[1], 1);
    EXPECT_EQ(events_[0]->session(), nullptr);
}

TEST_P(EventLifetime, CallsNobodyWhenItsCallbackDiedFirst) {
    create(0);
    create(1);
    callbacks_[0].reset();
    EXPECT_EQ(events_[0]->callback(), nullptr);
    comeDue();
    comeDue();
    EXPECT_EQ(calls[0], 0);
    EXPECT_GE(calls[1], 1);
    session.reset();
    callbacks_[1].reset();
    comeDue();
}

INSTANTIATE_TEST_SUITE_P(Kinds, EventLifetime,
                         testing::Values(Kind::Message, Kind::Timeout, Kind::OneShot,
                                         Kind::Repeating, Kind::Io),
                         nameOf);

// What creations refuse, and what is left when the session goes first.

using Reason = std::pair<unsigned, unsigned>;  // category and code

Reason reason(const RvSession& session) {
    const RvStatus status = session.status();
    return {status.category(), status.code()};
}

class Creation : public ObjectTest {};

TEST_F(Creation, RefusesMissingArgumentsAndPassesOnWhatTheCoreRefuses) {
    OnData data;
    OnTimer timer;
    OnIO io;
    OnSignal signal;
    const std::pair<std::function<void*()>, Reason> refused[] = {
        {[&] { return session->newListener(nullptr, &data, nullptr); }, {0, 3}},
        {[&] { return session->newListener("a..b", &data, nullptr); }, {0, 21}},
        {[&] { return session->newListener(kSubject, nullptr, nullptr); }, {0, 3}},
        {[&] { return session->newInbox(nullptr, nullptr); }, {0, 3}},
        {[&] { return session->newSender(nullptr); }, {0, 21}},
        {[&] { return session->newTimer(1, nullptr, nullptr); }, {0, 3}},
        {[&] { return session->newTimer(0, rv_TRUE, &timer, nullptr); }, {2, 7}},
        {[&] { return session->newIO(0, RVEVM_READ, nullptr, nullptr); }, {0, 3}},
        {[&] { return session->newIO(1'000'000, RVEVM_READ, &io, nullptr); }, {2, 3}},
        {[&] { return session->newSignal(10, nullptr, nullptr); }, {0, 3}},
        {[&] { return session->newSignal(24, &signal, nullptr); }, {2, 6}},
    };
    for (const auto& [create, why] : refused) {
        const std::unique_ptr<RvSender> success(session->newSender("a..b"));
        EXPECT_EQ(reason(*session), (Reason{0, 0}));
        EXPECT_TRUE(success->send(RvDatum(RVMSG_STRING, 0, "x")) == 21);
        EXPECT_EQ(create(), nullptr);
        EXPECT_EQ(reason(*session), why);
    }
}

// A listener that cannot have its time-out is taken back, and that must not hide the reason.
TEST_F(Creation, KeepsTheReasonWhenItUndoesHalfACreation) {
    rv_Session synchronous = nullptr;
    ASSERT_EQ(0, rv_CreateSession(&synchronous, nullptr, "", "", "-"));
    RvSession alone(synchronous);
    OnData data;
    EXPECT_EQ(alone.newListener(kSubject, 1000, &data, nullptr), nullptr);
    EXPECT_EQ(reason(alone), (Reason{2, 11}));
    EXPECT_EQ(0, rv_Deliver(alone.handle(), kSubject, nullptr, RVMSG_STRING, 0, "x"));
    EXPECT_EQ(data.messages, 0);
    EXPECT_TRUE(alone.dispatch(0) == 22);
}

// The announcement finds the link broken, and the advisory about that is delivered at once.
TEST_F(Creation, AListenerIsNotCalledBeforeItIsMade) {
    ScriptedDaemon daemon([](PeerLink& peer) { peer.welcome(); });
    connect(daemon.text());
    daemon.finish();
    RvListener* made = nullptr;
    int others = 0;
    OnData deletes([&](const char*, RvSender*, const RvDatum&, RvListener* listener) {
        delete listener;
        --others;
    });
    while ((made = session->newListener("_RV.WARN.>", &deletes, nullptr)) != nullptr) ++others;
    EXPECT_EQ(reason(*session), (Reason{0, 22}));
    EXPECT_EQ(others, 0) << "those that were whole";
}

int deleteAndDeliver(rv_Session closing, const void* /*message*/, void* listener) {
    static_cast<std::unique_ptr<RvListener>*>(listener)->reset();
    return rv_Deliver(closing, "_RV.LOCAL.TEST", nullptr, RVMSG_STRING, 0, "x");
}

TEST_F(Creation, WhatIsDeletedWhileItsSessionClosesIsNotCalledAnyMore) {
    OnData data;
    std::unique_ptr<RvListener> listener(listen(data));
    rv_AddHook(session->handle(), RV_HOOK_CLOSE, deleteAndDeliver, &listener);
    session.reset();
    EXPECT_EQ(data.messages, 0);
}

TEST_F(Creation, ObjectsOutliveTheirSessionWhoseCodeIsTwo) {
    OnData data;
    OnTimer onTimer;
    int closure = 0;
    const std::unique_ptr<RvSender> sender(session->newSender("a.b", "c.d"));
    const std::unique_ptr<RvListener> listener(session->newListener(kSubject, 5, &data, &closure));
    const std::unique_ptr<RvTimer> timer(session->newTimer(1, rv_TRUE, &onTimer, nullptr));
    ASSERT_TRUE(sender && listener && timer);
    EXPECT_EQ(listener->session(), session.get());
    ASSERT_EQ(0, rv_Close(session->handle()));
    RvSession none(nullptr);
    EXPECT_EQ(reason(none), (Reason{0, 2}));
    for (RvSession* const closed : {session.get(), &none}) {
        EXPECT_EQ(closed->newSender("a"), nullptr);
        EXPECT_EQ(closed->newListener("a", &data, nullptr), nullptr);
        EXPECT_EQ(closed->newTimer(1, &onTimer, nullptr), nullptr);
        EXPECT_EQ(reason(*closed), (Reason{0, 2}));
        EXPECT_TRUE(closed->dispatch(0) == 2);
    }
    session.reset();
    EXPECT_EQ(listener->session(), nullptr);
    EXPECT_EQ(listener->closure(), &closure);
    EXPECT_EQ(listener->callback(), &data);
    EXPECT_STREQ(listener->subject(), kSubject);
    EXPECT_STREQ(sender->replySubject(), "c.d");
    EXPECT_TRUE(sender->send(RvDatum(RVMSG_STRING, 0, "x")) == 2);
    EXPECT_EQ(sender->sendRequest(RvDatum(RVMSG_STRING, 0, "x"), &data, nullptr), nullptr);
    EXPECT_TRUE(timer->resetInterval(5) == 2);
    settle();
    EXPECT_EQ(data.timeouts + onTimer.calls, 0);
}

}  // namespace
}  // namespace kvx::test
