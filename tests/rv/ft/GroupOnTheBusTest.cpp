// Groups over a real daemon, with intervals short enough to watch.

#include "rv/ft/GroupMessage.h"
#include "rv/ft/rvft.h"
#include "rv/message/rvmsg.h"
#include "rv/session/rvSessionHooks.h"
#include "rv/session/rv_Session.h"
#include "tests/support/Daemon.h"
#include "tests/support/FailingNew.h"
#include "tests/support/Loop.h"

namespace kvx::test {
namespace {

using Actions = std::vector<int>;

constexpr unsigned long kBeat = 40;
constexpr unsigned long kActivate = 130;
constexpr const char* kGroup = "service.NET1.1";

struct Session {
    explicit Session(const std::string& daemon) {
        EXPECT_EQ(0, rv_Open(&handle, "", "", daemon.c_str()));
    }
    ~Session() { close(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    void close() { rv_Close(std::exchange(handle, nullptr)); }

    rv_Session handle = nullptr;
};

struct Member {
    Member(const std::string& daemon, unsigned weight) : session(daemon) {
        EXPECT_EQ(0, rvft_Join(session.handle, &id, kGroup, weight, 1, kBeat, 0, kActivate,
                               onAction, this));
        EXPECT_TRUE(actions.empty());
    }
    static void onAction(rv_Session, const char* group, int action, void* closure) {
        EXPECT_STREQ(group, kGroup);
        auto& self = *static_cast<Member*>(closure);
        self.actions.push_back(action);
        self.isActive = action == RVFT_ACTIVATE;
        if (self.inAction) self.inAction();
    }

    rvft_MemberId id = nullptr;
    Actions actions;
    bool isActive = false;
    std::function<void()> inAction;
    Session session;
};

class GroupOnTheBus : public testing::Test {
  protected:
    void runUntil(const std::function<bool()>& condition) {
        test::runUntil(rv_EventManager(runner.handle), condition);
    }
    int join(rv_Session session, const char* group, unsigned long activate = kActivate) {
        rvft_MemberId id = nullptr;
        return rvft_Join(session, &id, group, 1, 1, kBeat, 0, activate, Member::onAction, nullptr);
    }

    Daemon daemon;
    Session runner{"-"};
};

}  // namespace

TEST_F(GroupOnTheBus, ElectsTheBestAndHandsOverWhenItsSessionCloses) {
    Member backup(daemon.text(), 1);
    Member primary(daemon.text(), 2);
    runUntil([&] { return primary.isActive && !backup.isActive; });
    primary.session.close();
    runUntil([&] { return backup.isActive; });
    EXPECT_EQ(primary.actions, Actions{RVFT_ACTIVATE}) << "a leave is no action";
    EXPECT_EQ(rvft_Leave(primary.id), 5);
    EXPECT_EQ(rvft_IsFresh(primary.id), 0);
}

TEST_F(GroupOnTheBus, MayLeaveAndCloseInsideItsOwnAction) {
    Member leaving(daemon.text(), 2);
    Member closing(daemon.text(), 1);
    Member last(daemon.text(), 0);
    leaving.inAction = [&] { EXPECT_EQ(0, rvft_Leave(leaving.id)); };
    closing.inAction = [&] { closing.session.close(); };
    runUntil([&] { return last.isActive; });
    EXPECT_EQ(leaving.actions.size() + closing.actions.size(), 2U);
}

TEST_F(GroupOnTheBus, IgnoresStrangeMessagesOnItsSubject) {
    Member member(daemon.text(), 1);
    Session hostile(daemon.text());
    unsigned char empty[8];
    rvmsg_Init(empty, sizeof empty);
    const char* subject = "_RVFT.service_NET1_1";
    EXPECT_EQ(0, rv_Send(hostile.handle, subject, nullptr, RVMSG_MSG, 0, empty));
    EXPECT_EQ(0, rv_Send(hostile.handle, subject, nullptr, RVMSG_STRING, 0, "beat"));
    EXPECT_EQ(0, rv_Send(hostile.handle, subject, nullptr, RVMSG_NONE, 0, nullptr));
    runUntil([&] { return member.isActive; });
}

TEST_F(GroupOnTheBus, RefusesWhatItCannotDoAndSaysWhy) {
    Session session(daemon.text());
    rv_Session synchronous = nullptr;
    ASSERT_EQ(0, rv_CreateSession(&synchronous, nullptr, "", "", daemon.text().c_str()));
    EXPECT_EQ(join(session.handle, ""), 1);
    EXPECT_EQ(join(session.handle, "g", kBeat), 1);
    EXPECT_EQ(join(nullptr, "g"), 2);
    EXPECT_EQ(join(session.handle, "g"), 0);
    EXPECT_EQ(join(session.handle, "g"), 4);
    EXPECT_EQ(join(session.handle, "g.1"), 0);
    EXPECT_EQ(join(session.handle, "*"), 6);
    EXPECT_EQ(join(synchronous, "g"), 6);
    EXPECT_EQ(join(runner.handle, "g"), 6);
    EXPECT_EQ(rvft_Leave(nullptr), 5);
    EXPECT_STREQ(rvft_ErrorText(session.handle, 4), "Already a member of this group");
    EXPECT_STREQ(rvft_ErrorText(nullptr, 7), "");
    rv_Close(synchronous);
}

// The daemon stands still, so that both lead; then it is away for as long as somebody else would
// need to take over.
TEST_F(GroupOnTheBus, EndsWithTheBetterOneWhenTheMembersMeetAgain) {
    Member backup(daemon.text(), 1);
    Member primary(daemon.text(), 2);
    const auto isSettled = [&] { return primary.isActive && !backup.isActive; };
    runUntil(isSettled);
    daemon.pause();
    runUntil([&] { return backup.isActive; });
    EXPECT_TRUE(primary.isActive);
    EXPECT_EQ(rvft_IsFresh(primary.id) + rvft_IsFresh(backup.id), 0) << "neither may act";
    ::kill(daemon.pid(), SIGCONT);
    runUntil(isSettled);
    runUntil([&] { return rvft_IsFresh(primary.id) == 1; });
    const rv_Hook stayAway = [](rv_Session, const void*, void* restarted) {
        const auto end = platform::monotonicMs() + static_cast<long>(kActivate);
        while (platform::monotonicMs() <= end) std::this_thread::yield();
        static_cast<Daemon*>(restarted)->restart();
        return 0;
    };
    rv_AddHook(primary.session.handle, RV_HOOK_DISCONNECT, stayAway, &daemon);
    daemon.kill();
    runUntil([&] { return primary.actions.size() == 3; });
    EXPECT_EQ(primary.actions, (Actions{RVFT_ACTIVATE, RVFT_DEACTIVATE, RVFT_ACTIVATE}));
    runUntil(isSettled);
}

// A forked process stands for the other host: its session has the same name, and it has counted as
// many members.
TEST_F(GroupOnTheBus, TellsMembersApartWhoseSessionsHaveOneName) {
    const char* subject = "_RVFT.service_NET1_1";
    std::set<std::string> ids;
    const auto onBeat = [](rv_Session, const char*, const char*, rvmsg_Type, rvmsg_Size,
                           rvmsg_Data data, void* heard) {
        rvmsg_Data id = nullptr;
        rvmsg_GetRaw(data, "id", nullptr, nullptr, &id);
        static_cast<std::set<std::string>*>(heard)->insert(static_cast<const char*>(id));
    };
    Session ear(daemon.text());
    Session shared(daemon.text());
    rv_Listener listener = nullptr;
    ASSERT_EQ(0, rv_Listen(ear.handle, &listener, subject, onBeat, &ids));
    const auto marker = ft::encodeBeat({{1, 1, "marker"}}, kGroup);
    rv_Send(ear.handle, subject, nullptr, RVMSG_MSG, 0, marker.data());
    runUntil([&] { return ids.size() == 1; });
    const pid_t other = ::fork();
    if (other == 0) ::_exit(join(shared.handle, kGroup));
    int status = -1;
    ASSERT_EQ(other, ::waitpid(other, &status, 0));
    ASSERT_EQ(status, 0);
    ASSERT_EQ(0, join(shared.handle, kGroup));
    runUntil([&] { return ids.size() == 3; });
}

TEST_F(GroupOnTheBus, WithoutMemoryLeavesNoMemberBehind) {
    Session session(daemon.text());
    int code = 3;
    for (long news = 0; code == 3; ++news) {
        newsBeforeFailure = news;
        code = join(session.handle, kGroup);
        newsBeforeFailure = -1;
    }
    EXPECT_EQ(code, 0);
    EXPECT_EQ(join(session.handle, kGroup), 4);
}

TEST_F(GroupOnTheBus, AMemberThatFindsNoMemoryGoesOn) {
    Member member(daemon.text(), 1);
    member.actions.reserve(8);
    int rounds = 0;
    const auto starve = [&] {
        newsFailForGood = ++rounds < 300;
        newsBeforeFailure = rounds < 300 ? 0 : -1;
        return rounds == 300;
    };
    runUntil(starve);
    EXPECT_TRUE(member.isActive) << "activating needs no memory";
    newsFailForGood = true;
    newsBeforeFailure = 0;
    const int code = rvft_Leave(member.id);
    newsBeforeFailure = -1;
    newsFailForGood = false;
    EXPECT_EQ(code, 0);
    EXPECT_EQ(join(member.session.handle, kGroup), 0);
}

}  // namespace kvx::test
