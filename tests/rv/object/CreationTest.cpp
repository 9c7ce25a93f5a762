// What creations refuse, and what is left when the session goes first.

#include "rv/session/rvSessionHooks.h"
#include "tests/rv/object/ObjectFixture.h"
#include "tests/support/ScriptedDaemon.h"

namespace kvx::test {
namespace {

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
