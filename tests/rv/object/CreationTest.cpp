// What creations refuse, and what is left when the session goes first.

#include "rv/session/rvSessionHooks.h"
#include "tests/rv/object/ObjectFixture.h"
#include "tests/support/ScriptedDaemon.h"

namespace kvx::test {
namespace {

struct Reason {
    unsigned category;
    unsigned code;
    bool operator==(const Reason&) const = default;
};

Reason reason(const RvSession& session) {
    const RvStatus status = session.status();
    return {status.category(), status.code()};
}

class Creation : public ObjectTest {};

TEST_F(Creation, RefusesMissingArguments) {
    OnData data;
    EXPECT_EQ(session->newListener(nullptr, &data, nullptr), nullptr);
    EXPECT_EQ(reason(*session), (Reason{0, 3}));
    EXPECT_EQ(session->newSender(nullptr), nullptr);
    EXPECT_EQ(reason(*session), (Reason{0, 21}));
    const std::function<void*()> withoutCallback[] = {
        [&] { return session->newListener(kSubject, nullptr, nullptr); },
        [&] { return session->newInbox(nullptr, nullptr); },
        [&] { return session->newTimer(1, nullptr, nullptr); },
        [&] { return session->newIO(0, RVEVM_READ, nullptr, nullptr); },
        [&] { return session->newSignal(10, nullptr, nullptr); },
    };
    for (const auto& create : withoutCallback) {
        const std::unique_ptr<RvSender> success(session->newSender("a"));
        EXPECT_EQ(reason(*session), (Reason{0, 0}));
        EXPECT_EQ(create(), nullptr);
        EXPECT_EQ(reason(*session), (Reason{0, 3}));
    }
}

TEST_F(Creation, PassesOnWhatTheCoreRefuses) {
    OnData data;
    OnTimer timer;
    OnIO io;
    OnSignal signal;
    EXPECT_EQ(session->newListener("a..b", &data, nullptr), nullptr);
    EXPECT_EQ(reason(*session), (Reason{0, 21}));
    EXPECT_EQ(session->newTimer(0, rv_TRUE, &timer, nullptr), nullptr);
    EXPECT_EQ(reason(*session), (Reason{2, 7}));
    EXPECT_EQ(session->newIO(1'000'000, RVEVM_READ, &io, nullptr), nullptr);
    EXPECT_EQ(reason(*session), (Reason{2, 3}));
    EXPECT_EQ(session->newSignal(24, &signal, nullptr), nullptr);
    EXPECT_EQ(reason(*session), (Reason{2, 6}));
    const std::unique_ptr<RvSender> sender(session->newSender("a..b"));
    ASSERT_NE(sender, nullptr);
    EXPECT_TRUE(sender->send(RvDatum(RVMSG_STRING, 0, "x")) == 21);
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

TEST_F(Creation, ReportsCodeTwoWithoutASession) {
    RvSession none(nullptr);
    OnData data;
    OnTimer timer;
    EXPECT_EQ(reason(none), (Reason{0, 2}));
    EXPECT_EQ(none.newSender("a"), nullptr);
    EXPECT_EQ(none.newListener("a", &data, nullptr), nullptr);
    EXPECT_EQ(none.newTimer(1, &timer, nullptr), nullptr);
    EXPECT_EQ(reason(none), (Reason{0, 2}));
    EXPECT_TRUE(none.dispatch(0) == 2);

    ASSERT_EQ(0, rv_Close(session->handle()));
    EXPECT_EQ(session->newTimer(1, &timer, nullptr), nullptr);
    EXPECT_EQ(reason(*session), (Reason{0, 2}));
}

TEST_F(Creation, ObjectsOutliveTheirSession) {
    OnData data;
    OnTimer onTimer;
    int closure = 0;
    const std::unique_ptr<RvSender> sender(session->newSender("a.b", "c.d"));
    const std::unique_ptr<RvListener> listener(session->newListener(kSubject, 5, &data, &closure));
    const std::unique_ptr<RvTimer> timer(session->newTimer(1, rv_TRUE, &onTimer, nullptr));
    ASSERT_TRUE(sender && listener && timer);
    EXPECT_EQ(listener->session(), session.get());
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
