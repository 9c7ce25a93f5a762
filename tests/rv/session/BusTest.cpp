// Sessions that speak to one another through a real daemon.

#include "tests/rv/session/SessionFixture.h"
#include "tests/support/Daemon.h"
#include "tests/support/EnvironmentVariable.h"

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

TEST_F(Bus, AUnixSocketServesAsWellAndARestartedDaemonThatRefusesIsToldOf) {
    const EnvironmentVariable noStart("KVX_START_DAEMON", "0");
    const TemporaryDirectory directory;
    const std::string address = "unix:" + directory.file("rvd");
    std::optional<Daemon> daemon(std::in_place, Texts{"-listen", address});
    rv_Session session = open(address);
    Listening heard, advisories;
    listen(session, heard, "S");
    listen(session, advisories, "_RV.>");
    const std::string large(3'000'000, 'x');
    ASSERT_EQ(send(session, "S", large), 0);
    runUntilHeard(heard, 1);
    daemon.emplace(Texts{"-listen", address});
    runUntil([&] { return !advisories.heard.empty() && rv_IsConnected(session); });
    ASSERT_EQ(send(session, "S", "again"), 0);
    runUntilHeard(heard, 2);
    EXPECT_EQ(heard.texts(), (Texts{large, "again"}));
    daemon.emplace(Texts{"-listen", address, "-allow-user", std::to_string(geteuid() + 1)});
    runUntilHeard(advisories, 3);
    const std::string lost = "_RV.WARN.SYSTEM.RVD.DISCONNECTED";
    EXPECT_EQ(advisories.subjects(), (Texts{lost, lost, "_RV.ERROR.SYSTEM.RVD.REFUSED"}));
    EXPECT_FALSE(rv_IsConnected(session));
}

TEST_F(Bus, ARoundOfFailedAttemptsIsRepeatedAfterFifteenSecondsAndEverySubscriptionComesBack) {
    using platform::ManualClock;
    ManualClock clock(1'000'000, ManualClock::Waits::Block);
    rv_Session session = open(daemon_.text());
    Listening exact, pattern, inbox, advisories;
    listen(session, exact, "LOAD.1");
    listen(session, pattern, "LOAD.*");
    listen(session, advisories, "_RV.>");
    const std::string inboxName = createInbox(session, inbox);
    platform::Milliseconds lostAt = 0;
    advisories.onHeard = [&](const Heard&) {
        EXPECT_FALSE(rv_IsConnected(session));
        EXPECT_EQ(send(session, "LOAD.1", "x"), 22);
        lostAt = clock.now();
        clock.setWaits(ManualClock::Waits::Advance);
    };
    daemon_.kill();
    runUntil([&] { return lostAt != 0; });
    EXPECT_GE(clock.now() - lostAt, 8'000) << "four attempts";
    EXPECT_FALSE(rv_IsConnected(session));
    clock.setWaits(ManualClock::Waits::Block);
    daemon_.restart();
    static int reconnects;
    reconnects = 0;
    const rv_Hook stop = [](rv_Session, const void*, void* manager) {
        ++reconnects;
        return rvevm_Stop(static_cast<rvevm_Manager>(manager));
    };
    rv_AddHook(session, RV_HOOK_RECONNECT, stop, manager_);
    clock.advance(15'000);
    rvevm_MainLoop(manager_);
    for (const char* subject : {"LOAD.1", inboxName.c_str()}) send(session, subject, "again");
    clock.setWaits(ManualClock::Waits::Advance);
    for (const Listening* heard : {&exact, &pattern, &inbox}) runUntilHeard(*heard, 1);
    EXPECT_EQ(reconnects, 1);
    EXPECT_EQ(advisories.subjects(), Texts{"_RV.WARN.SYSTEM.RVD.DISCONNECTED"});
}

}  // namespace
}  // namespace kvx::test
