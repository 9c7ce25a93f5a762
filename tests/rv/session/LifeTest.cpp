// Loops, timers, closing and the advisories that a session makes about itself.

#include "rv/error/rvAdvisory.h"
#include "tests/rv/session/SessionFixture.h"
#include "tests/support/ScriptedDaemon.h"
#include "tests/support/SocketPair.h"

namespace kvx::test {
namespace {

using platform::ManualClock;

class Life : public SessionFixture {
  protected:
    void SetUp() override { session_ = open("-"); }
    rv_Session session_ = nullptr;
};

// A timer's or event's callback as a function object.
struct Action {
    std::function<void()> act = [] {};
    int calls = 0;
    rvevm_Id id = nullptr;

    static void call(void*, void* closure, int, void*) {
        auto* self = static_cast<Action*>(closure);
        ++self->calls;
        self->act();
    }
};

TEST_F(Life, IoEventsEndWithTheirSession) {
    const SocketPair pair;
    const auto socket = static_cast<unsigned>(pair.near.get());
    Action io{[this] { rv_Close(session_); }};
    ASSERT_EQ(rv_AddIO(session_, &io.id, socket, RVEVM_READ, Action::call, &io), 0);
    pair.farSends("x");
    runUntil([&] { return io.calls > 0; });
    rv_Session other = open("-");
    EXPECT_EQ(rv_AddIO(other, &io.id, socket, RVEVM_READ, Action::call, &io), 0) << "free again";
    EXPECT_EQ(rv_RemoveIO(other, io.id), 0);
    EXPECT_EQ(rv_RemoveIO(other, io.id), 2);
}

TEST_F(Life, StarvationIsAnnouncedAboveFiveSecondsOnly) {
    ManualClock clock(1'000'000, ManualClock::Waits::Block);
    std::uint32_t offset = 0;
    rv_Listener id = nullptr;
    const rv_DataCallback readOffset = [](rv_Session, const char* subject, const char*, rvmsg_Type,
                                          rvmsg_Size size, rvmsg_Data body, void* closure) {
        EXPECT_STREQ(subject, "_RV.WARN.SYSTEM.EVENTLOOP.STARVATION");
        const auto field = findField({static_cast<const std::uint8_t*>(body), size}, "fireoffset");
        ASSERT_TRUE(field && field->type == RVMSG_UINT);
        *static_cast<std::uint32_t*>(closure) = loadBig32(field->data);
    };
    rv_Listen(session_, &id, "_RV.>", readOffset, &offset);
    Action late{[this] { rvevm_Stop(manager_); }};
    for (const unsigned lateness : {5'000U, 6'000U}) {
        rv_AddTimer(session_, &late.id, 10, Action::call, &late);
        clock.advance(10 + lateness);
        rvevm_MainLoop(manager_);
        EXPECT_EQ(offset, lateness > 5'000 ? lateness : 0);
    }
    EXPECT_EQ(late.calls, 2);
}

TEST_F(Life, RunOnceRunsUntilStoppedAndClosingEndsIt) {
    Action close{[this] { rv_Close(session_); }};
    Action stop{[this] {
        EXPECT_EQ(rv_RunOnce(session_), 0) << "already inside: ignored";
        EXPECT_EQ(rv_StopLoop(session_), 0);
    }};
    rv_AddTimer(session_, &stop.id, 1, Action::call, &stop);
    EXPECT_EQ(rv_RunOnce(session_), 0);
    EXPECT_EQ(stop.calls, 1);
    rv_AddTimer(session_, &close.id, 1, Action::call, &close);
    EXPECT_EQ(rv_RunOnce(session_), 0);
    EXPECT_EQ(rv_RunOnce(session_), 2);
    EXPECT_EQ(rv_Flavor(0, "X", nullptr, 0, 0), 4);
    EXPECT_EQ(rv_Flavor(flavourId, flavourName, nullptr, 0, 0), 0);
}

TEST_F(Life, OpenedSessionsShareOneManagerAndTheLastCloseEndsIt) {
    rv_Session one = nullptr, two = nullptr;
    ASSERT_EQ(rv_Open(&one, nullptr, nullptr, "-"), 0);
    ASSERT_EQ(rv_Open(&two, nullptr, nullptr, "-"), 0);
    ASSERT_EQ(rv_EventManager(one), rv_EventManager(two));
    Action closeBoth{[&] {
        EXPECT_EQ(rv_Close(one), 0);
        EXPECT_EQ(rv_Close(two), 0);
    }};
    rv_AddTimer(one, &closeBoth.id, 1, Action::call, &closeBoth);
    EXPECT_EQ(rv_RunOnce(two), 0);
    EXPECT_EQ(closeBoth.calls, 1);
}

struct ClosesAtExit {
    rv_Session session = nullptr;
    ~ClosesAtExit() { std::_Exit(rv_Close(session)); }
};

TEST(Exit, ASessionInStaticStorageIsClosedLikeAnyOther) {
    const auto endWithOpenSession = [] {
        static ClosesAtExit last;  // older than what the library makes when it is first used
        rv_Open(&last.session, "", "", "-");
        std::exit(1);
    };
    EXPECT_EXIT(endWithOpenSession(), testing::ExitedWithCode(0), "");
}

TEST_F(Life, ASessionMayOutliveItsManager) {
    rvevm_Manager manager = nullptr;
    rv_Session session = nullptr;
    Action timer;
    ASSERT_EQ(rvevm_Create(&manager), 0);
    ASSERT_EQ(rv_CreateSession(&session, manager, "", "", "-"), 0);
    ASSERT_EQ(rv_AddTimer(session, &timer.id, 1, Action::call, &timer), 0);
    rvevm_Destroy(manager);
    EXPECT_EQ(rv_RunOnce(session), 1);
    EXPECT_EQ(rv_Close(session), 0);
}

TEST_F(Life, AdvisoriesThatNobodyHearsGoToStandardError) {
    testing::internal::CaptureStderr();
    deliver(session_, "_RV.INFO.MINE.X", "silent");
    deliver(session_, "_RV.WARN.MINE.X", "loud");
    Listening all;
    listen(session_, all, "_RV.>");
    deliver(session_, "_RV.WARN.MINE.X", "heard");
    const std::string output = testing::internal::GetCapturedStderr();
    const std::string begin =
        "Rendezvous Error Not Handled by User Program:\n{ mtype=\"D\" sub=[_RV.WARN.MINE.X]";
    EXPECT_EQ(output.rfind(begin), 0U);
    EXPECT_NE(output.find("data=\"loud\"}\n"), std::string::npos);
}

TEST_F(Life, AFastProducerIsToldOnceInAHundredTimes) {
    std::atomic<bool> release = false;
    ScriptedDaemon deaf([&release](PeerLink& peer) {
        peer.welcome();
        while (!release) std::this_thread::yield();
        peer.readToTheEnd();
    });
    rv_Session session = open(deaf.text());
    Listening warnings;
    listen(session, warnings, "_RV.*.SYSTEM.CLIENT.FASTPRODUCER");
    unsigned long waiting = 0;
    const std::string body(5'000, 'b');
    while (rv_Pending(session, &waiting, nullptr) == 0 && waiting < 999)
        ASSERT_EQ(send(session, "A", body), 0);
    EXPECT_TRUE(warnings.heard.empty());
    for (int i = 0; i < 250; ++i) ASSERT_EQ(send(session, "A", body), 0);
    EXPECT_EQ(warnings.subjects(), Texts(3, "_RV.WARN.SYSTEM.CLIENT.FASTPRODUCER"));
    EXPECT_EQ(rv_Flush(session, 1), 10060) << "the time-out";
    release = true;
    EXPECT_EQ(rv_Flush(session, 20'000), 0);
    rv_Close(session);
}

TEST_F(Life, ApplicationsPublishTheirOwnAdvisoriesAndNotTheSystems) {
    Texts published;
    ScriptedDaemon daemon([&](PeerLink& peer) {
        peer.welcome();
        peer.readMessage();
        for (const auto& message : peer.readToTheEnd()) published.push_back(headline(message));
    });
    rv_Session session = open(daemon.text());
    std::uint8_t body[256], subject[500], other[256];
    ASSERT_EQ(rv_BuildAppAdvisory(body, sizeof body, "WARN", "MINE", "DISK", nullptr, subject,
                                  sizeof subject),
              0);
    ASSERT_EQ(rv_BuildAdvisory(other, sizeof other, "WARN", "SYSTEM", "X", nullptr, subject,
                               sizeof subject),
              0);
    EXPECT_EQ(rv_SendAppAdvisory(session, nullptr, body), 0);
    EXPECT_EQ(rv_SendAppAdvisory(session, "ELSEWHERE", body), 0);
    EXPECT_EQ(rv_SendAdvisory(session, nullptr, body), 0);
    EXPECT_EQ(rv_SendAppAdvisory(session, nullptr, other), 9);
    for (const char* refused : {"_RV.WARN.SYSTEM.X", "A..B"})
        EXPECT_EQ(rv_SendAppAdvisory(session, refused, body), 9);
    EXPECT_EQ(rv_SendAdvisory(session, "A..B", body), 21);
    rvmsg_Init(other, sizeof other);
    EXPECT_EQ(rv_SendAdvisory(session, "A", other), 3) << "no fields";
    EXPECT_EQ(rv_SendAdvisory(session, "A", "no message"), 0);
    rv_Close(session);
    daemon.finish();
    EXPECT_EQ(published, (Texts{"D:_RV.WARN.MINE.DISK", "D:ELSEWHERE", "D:_RV.WARN.MINE.DISK"}));
}

}  // namespace
}  // namespace kvx::test
