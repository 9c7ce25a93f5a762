// Which listeners a message reaches, in which order and form, and what callbacks may do meanwhile.

#include "tests/rv/session/SessionFixture.h"
#include "tests/support/ScriptedDaemon.h"

namespace kvx::test {
namespace {

// A session whose daemon says nothing; messages come by local delivery.
class Delivery : public SessionFixture {
  protected:
    void SetUp() override { session_ = open(daemon_.text()); }
    void TearDown() override { closeAll(); }

    int deliver(const char* subject, const std::string& text) {
        return SessionFixture::deliver(session_, subject, text);
    }
    void listen(Listening& listening, const char* subject) {
        SessionFixture::listen(session_, listening, subject);
    }

    ScriptedDaemon daemon_{[](PeerLink& peer) {
        peer.welcome();
        peer.readToTheEnd();
    }};
    rv_Session session_ = nullptr;
};

TEST_F(Delivery, InboxAndReservedSubjectsHaveTheirOwnRules) {
    Listening everything, reserved, inbox, pattern;
    listen(everything, ">");
    listen(reserved, "_RV.>");
    deliver(createInbox(session_, inbox).c_str(), "inbox");  // exact only
    deliver("_RV.INFO.MINE.X", "advisory");                  // a plain ">" hears it too
    deliver("A.>", "covers ordinary");                       // a pattern reaches what it covers
    deliver("*.>", "covers all but private");
    EXPECT_EQ(inbox.texts(), Texts{"inbox"});
    EXPECT_EQ(reserved.texts(), Texts{"advisory"});
    EXPECT_EQ(everything.texts(), Texts{"advisory"}) << "no pattern covers more than its own";
    Listening covered;
    listen(covered, "A.B");
    deliver("A.*", "pattern");
    EXPECT_EQ(covered.texts(), Texts{"pattern"});
}

TEST_F(Delivery, WhomASubjectReachesFollowsEveryListenAndCancel) {
    std::string order;
    Listening first, second, third;
    first.onHeard = [&](const Heard& heard) {
        order += "1" + heard.text;
        if (heard.text == "b") listen(second, "A.*");           // hears the next one
        if (heard.text == "d") rv_Cancel(session_, second.id);  // hears no more
    };
    second.onHeard = [&](const Heard& heard) { order += "2" + heard.text; };
    third.onHeard = [&](const Heard& heard) { order += "3" + heard.text; };
    listen(first, "A.B");
    for (const char* text : {"a", "b", "c"}) deliver("A.B", text);
    deliver("A.C", "other");
    listen(third, ">");
    for (const char* text : {"c", "d", "e"}) deliver("A.B", text);
    EXPECT_EQ(rv_Cancel(session_, first.id), 0);
    deliver("A.B", "f");
    EXPECT_EQ(order, "1a1b1c2c2other1c2c3c1d3d1e3e3f");
}

TEST_F(Delivery, SubjectsAreCheckedBeforeAnythingIsDelivered) {
    EXPECT_EQ(rv_Deliver(session_, nullptr, nullptr, RVMSG_NONE, 0, nullptr), 3);
    EXPECT_EQ(deliver("A..B", "x"), 21);
    EXPECT_EQ(deliver("_RV.WARN.SYSTEM.X", "x"), 21);
    EXPECT_EQ(send(session_, "_RV.WARN.SYSTEM.X", "x"), 21);
    EXPECT_EQ(send(session_, "_RV.WARN.APP.X", "x"), 0);
    EXPECT_EQ(send(session_, "_RV.SYSTEM", "x"), 0);
    EXPECT_EQ(rv_Send(session_, nullptr, nullptr, RVMSG_NONE, 0, nullptr), 3);
    EXPECT_EQ(rv_Send(session_, "A", nullptr, RVMSG_OPAQUE, 0, "x"), 20);
    EXPECT_EQ(rv_Send(session_, "A", nullptr, RVMSG_OPAQUE, 0x4000001, "x"), 3) << "too large";
    EXPECT_EQ(rv_Send(session_, "A", nullptr, RVMSG_INT, 3, "abc"), 3) << "no such integer";
    Listening listening;
    EXPECT_EQ(rv_Listen(session_, &listening.id, "_INBOX.x", Listening::callback(), nullptr), 21);
    EXPECT_EQ(rv_Listen(session_, &listening.id, nullptr, Listening::callback(), nullptr), 3);
    EXPECT_EQ(rv_Cancel(session_, nullptr), 23);
    EXPECT_EQ(rv_Cancel(session_, reinterpret_cast<rv_Listener>(&listening)), 23);
}

TEST_F(Delivery, NestedDeliveriesWaitForTheirTurn) {
    std::string order;
    Listening first, second;
    first.onHeard = [&](const Heard& heard) {
        if (heard.text == "outer") deliver("A", "nested");
        order += "first " + heard.text + ", ";
    };
    second.onHeard = [&](const Heard& heard) { order += "second " + heard.text + ", "; };
    listen(first, "A");
    listen(second, "A");
    deliver("A", "outer");
    EXPECT_EQ(order, "first outer, second outer, first nested, second nested, ");
}

TEST_F(Delivery, ClosingTheSessionInACallbackEndsTheDelivery) {
    int released = 0;
    rv_AddHook(
        session_, RV_HOOK_RELEASE,
        [](rv_Session, const void*, void* count) { return ++*static_cast<int*>(count); },
        &released);
    Listening closer, next;
    closer.onHeard = [&](const Heard&) {
        deliver("A", "never");
        EXPECT_EQ(rv_Close(session_), 0);
        EXPECT_EQ(released, 0) << "the memory goes after the delivery";
        EXPECT_EQ(rv_Close(session_), 2);
        EXPECT_EQ(send(session_, "A", "x"), 2);
    };
    listen(closer, "A");
    listen(next, "A");
    EXPECT_EQ(deliver("A", "x"), 0);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(closer.heard.size(), 1U);
    EXPECT_TRUE(next.heard.empty());
}

TEST_F(Delivery, HooksMayRefuseAMessageAndCancelWhomItIsFor) {
    static int refusals;
    refusals = 0;
    const rv_Hook refuse = [](rv_Session, const void*, void*) { return 76 + ++refusals; };
    const rv_Hook cancel = [](rv_Session session, const void*, void* id) {
        rv_Cancel(session, *static_cast<rv_Listener*>(id));
        return 0;
    };
    Listening victim, witness;
    listen(victim, "A");
    listen(witness, "A");
    rv_AddHook(session_, RV_HOOK_PUBLISH, refuse, nullptr);
    EXPECT_EQ(send(session_, "A", "x"), 77);
    rv_AddHook(session_, RV_HOOK_DELIVER, refuse, nullptr);
    deliver("A", "dropped");
    EXPECT_EQ(rv_RemoveHook(session_, RV_HOOK_DELIVER, refuse, nullptr), 0);
    EXPECT_EQ(rv_RemoveHook(session_, RV_HOOK_DELIVER, refuse, nullptr), 3);
    EXPECT_EQ(refusals, 2);
    rv_AddHook(session_, RV_HOOK_DELIVER, cancel, &victim.id);
    deliver("A", "heard");
    EXPECT_EQ(victim.texts(), Texts{});
    EXPECT_EQ(witness.texts(), Texts{"heard"});
}

TEST_F(Delivery, WhatWaitsIsDeliveredAlsoWhenMemoryRanOutBeforeIt) {
    Listening listening, advisories;
    listening.onHeard = [&](const Heard& heard) {
        if (heard.text != "1") return;
        deliver("A", "2");
        throw std::bad_alloc();
    };
    listen(listening, "A");
    listen(advisories, "_RV.ERROR.>");
    deliver("A", "1");
    EXPECT_EQ(listening.texts(), (Texts{"1", "2"}));
    EXPECT_EQ(advisories.subjects(), Texts{"_RV.ERROR.SYSTEM.CLIENT.NOMEMORY"});
}

TEST_F(Delivery, AClosedHandleNamesNoLaterSession) {
    std::vector<rv_Session> closed;
    for (int i = 0; i < 50; ++i) {
        closed.push_back(open("-"));
        ASSERT_EQ(rv_Close(closed.back()), 0);
    }
    rv_Session last = open("-");
    for (rv_Session dead : closed) {
        EXPECT_EQ(rv_Close(dead), 2);
        EXPECT_EQ(send(dead, "A", "x"), 2);
        EXPECT_EQ(rv_Cancel(dead, nullptr), 2);
        EXPECT_EQ(rv_Dispatch(dead, 0), 2);
        EXPECT_EQ(rv_EventManager(dead), nullptr);
    }
    EXPECT_TRUE(rv_IsOpen(last));
    EXPECT_EQ(rv_Dispatch(session_, 0), 3) << "not a synchronous session";
    EXPECT_EQ(rv_RunOnce(nullptr), 2);
}

// Messages of the daemon's making.
class Hostile : public SessionFixture {};

TEST_F(Hostile, MessagesWithoutASoundSubjectOrPayloadAreDropped) {
    RvMsg messages[3];  // the first one without a subject
    for (RvMsg& message : messages) message.append("mtype", "D");
    messages[1].append("sub", "A");
    const std::uint8_t torn[] = {0, 8, 1, 9, 'A', 0, 0, 0};  // an element past the end
    messages[2].append("sub", RVMSG_SUBJECT, 0, torn);
    ScriptedDaemon daemon([&](PeerLink& peer) {
        peer.welcome();
        for (const RvMsg& message : messages) peer.send(bytesOf(message));
        peer.publish("A", "sound", "");
        peer.readToTheEnd();
    });
    rv_Session session = open(daemon.text());
    Listening everything;
    listen(session, everything, ">");
    runUntilHeard(everything, 1);
    EXPECT_EQ(everything.heard, std::vector{(Heard{"A", "", "sound"})});
    closeAll();
}

}  // namespace
}  // namespace kvx::test
