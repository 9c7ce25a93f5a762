// Sessions that speak to one another through a real daemon.

#include "tests/rv/session/SessionFixture.h"
#include "tests/support/Daemon.h"

namespace kvx::test {
namespace {

class Bus : public SessionFixture {
  protected:
    Daemon daemon_;
};

TEST_F(Bus, SessionNamesAndInboxesAreUnique) {
    rv_Session one = open(daemon_.text());
    rv_Session two = open(daemon_.text());
    EXPECT_STRNE(rv_SessionName(one), rv_SessionName(two));
    Listening ignored;
    std::vector<std::string> names;
    for (rv_Session session : {one, one, two}) {
        names.push_back(createInbox(session, ignored));
        EXPECT_EQ(names.back().find("_INBOX." + std::string(rv_SessionName(session)) + "."), 0U);
    }
    EXPECT_NE(names[0], names[1]);
    EXPECT_NE(names[1], names[2]);
    char small[10];
    EXPECT_EQ(
        rv_CreateInbox(one, &ignored.id, small, sizeof small, Listening::callback(), &ignored), 3);
}

// The daemon counts listens, and was told of one only.
TEST_F(Bus, CancellingAListenThatWasNotAnnouncedLeavesTheOthersOnItsSubject) {
    rv_Session session = openSynchronous(daemon_.text());
    Listening heard;
    Listening refused;
    listen(session, heard, "S");
    const rv_Hook refuse = [](rv_Session, const void*, void*) { return 1; };
    rv_AddHook(session, RV_HOOK_LISTEN, refuse, nullptr);
    listen(session, refused, "S");
    ASSERT_EQ(rv_Cancel(session, refused.id), 0);
    ASSERT_EQ(send(session, "S", "a"), 0);
    ASSERT_EQ(rv_Dispatch(session, 10'000), 0);
    EXPECT_EQ(heard.texts(), Texts{"a"});
}

TEST_F(Bus, SynchronousSessionsDispatchOneMessageACall) {
    rv_Session session = openSynchronous(daemon_.text());
    Listening heard;
    listen(session, heard, "S");
    EXPECT_EQ(rv_Dispatch(session, 0), 0);
    for (const char* text : {"a", "b", "c"}) ASSERT_EQ(send(session, "S", text), 0);
    for (std::size_t expected = 1; expected <= 3; ++expected) {
        ASSERT_EQ(rv_Dispatch(session, 10'000), 0);
        EXPECT_EQ(heard.heard.size(), expected);
    }
    EXPECT_EQ(heard.texts(), (Texts{"a", "b", "c"}));
    rvevm_Id id = nullptr;
    const auto ignore = [](void*, void*, int, void*) {};
    EXPECT_EQ(rv_AddTimer(session, &id, 1, ignore, nullptr), 11);
    EXPECT_EQ(rv_StopLoop(session), 11);
    EXPECT_EQ(rv_EventManager(session), nullptr);
    daemon_.kill();
    int code = 0;
    while (code == 0) code = rv_Dispatch(session, 10'000);
    EXPECT_EQ(code, 22);
    EXPECT_EQ(send(session, "S", "x"), 22);
}

TEST_F(Bus, LargeMessagesAndTheQueuePropertiesOfALivingConnection) {
    const ipq_Properties properties{1, 100'000, 65'536};
    rv_Session session = open(daemon_.text());
    EXPECT_EQ(rv_SetProperty(session, "ipqProperties", &properties), 0);
    EXPECT_EQ(rv_SetProperty(session, "other", &properties), 3);
    Listening heard;
    listen(session, heard, "BIG");
    const std::string large(3'000'000, 'x');
    ASSERT_EQ(send(session, "BIG", large), 0);
    unsigned long messages = 0, bytes = 0;
    EXPECT_EQ(rv_Pending(session, &messages, &bytes), 0);
    EXPECT_GE(messages, 1U) << "batching waits for the next event";
    EXPECT_GT(bytes, large.size());
    runUntilHeard(heard, 1);
    EXPECT_EQ(heard.texts(), Texts{large});
    EXPECT_EQ(rv_Pending(session, &messages, nullptr), 0);
    EXPECT_EQ(messages, 0U);
}

class Restart : public Bus {
  protected:
    void SetUp() override {
        session_ = open(daemon_.text());
        listen(session_, one_, "LOAD.1");
        listen(session_, two_, "LOAD.*");
        listen(session_, advisories_, "_RV.>");
        inboxName_ = createInbox(session_, inbox_);
        rv_AddHook(
            session_, RV_HOOK_RECONNECT,
            [](rv_Session, const void*, void* count) { return ++*static_cast<int*>(count); },
            &reconnects_);
    }
    void startLoad() {
        const auto send20 = [](void* owner, void* name, int, void*) {
            auto self = static_cast<rv_Session>(owner);
            for (int i = 0; i < 20; ++i) send(self, "LOAD.1", "load");
            send(self, static_cast<std::string*>(name)->c_str(), "to the inbox");
        };
        rvevm_Id load = nullptr;
        ASSERT_EQ(rv_AddRepeatTimer(session_, &load, 1, send20, &inboxName_), 0);
    }
    void runUntilEverybodyHears() {
        one_.heard.clear();
        two_.heard.clear();
        inbox_.heard.clear();
        runUntil([&] {
            return one_.heard.size() > 100 && two_.heard.size() > 100 && !inbox_.heard.empty();
        });
    }

    rv_Session session_ = nullptr;
    Listening one_, two_, inbox_, advisories_;
    std::string inboxName_;
    int reconnects_ = 0;
};

TEST_F(Restart, AKilledDaemonComesBackUnderLoadWithEverySubscription) {
    startLoad();
    runUntilEverybodyHears();
    advisories_.onHeard = [&](const Heard&) {
        EXPECT_FALSE(rv_IsConnected(session_));
        EXPECT_EQ(send(session_, "LOAD.1", "x"), 22);
        daemon_.restart();
    };
    daemon_.kill();
    runUntil([&] { return reconnects_ > 0; });
    runUntilEverybodyHears();
    EXPECT_EQ(advisories_.subjects(), Texts{"_RV.WARN.SYSTEM.RVD.DISCONNECTED"});
    EXPECT_EQ(reconnects_, 1);
}

TEST_F(Restart, ARoundOfFailedAttemptsIsRepeatedAfterFifteenSeconds) {
    using platform::ManualClock;
    ManualClock clock(1'000'000, ManualClock::Waits::Block);
    platform::Milliseconds lostAt = 0;
    advisories_.onHeard = [&](const Heard&) {
        lostAt = clock.now();
        clock.setWaits(ManualClock::Waits::Advance);
    };
    daemon_.kill();
    runUntil([&] { return lostAt != 0; });
    EXPECT_GE(clock.now() - lostAt, 8'000) << "four attempts";
    EXPECT_FALSE(rv_IsConnected(session_));
    clock.setWaits(ManualClock::Waits::Block);
    daemon_.restart();
    rv_AddHook(
        session_, RV_HOOK_RECONNECT,
        [](rv_Session, const void*, void* manager) {
            return rvevm_Stop(static_cast<rvevm_Manager>(manager));
        },
        manager_);
    clock.advance(15'000);
    rvevm_MainLoop(manager_);
    EXPECT_EQ(reconnects_, 1);
    EXPECT_EQ(advisories_.heard.size(), 1U);
}

}  // namespace
}  // namespace kvx::test
