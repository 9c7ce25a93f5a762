// Groups over a real daemon, with intervals short enough to watch.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "rv/ft/rvft.h"
#include "rv/message/rvmsg.h"
#include "rv/session/rvSessionEvents.h"
#include "tests/support/Daemon.h"

namespace {

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
    std::vector<int> actions;
    bool isActive = false;
    std::function<void()> inAction;
    Session session;
};

class GroupOnTheBus : public testing::Test {
  protected:
    bool runUntil(std::function<bool()> condition) {
        condition_ = std::move(condition);
        end_ = kvx::platform::monotonicMs() + 20'000;
        rvevm_Id watch = nullptr;
        EXPECT_EQ(0, rv_AddRepeatTimer(runner.handle, &watch, 1, onWatch, this));
        EXPECT_EQ(0, rv_RunOnce(runner.handle));
        rv_RemoveTimer(runner.handle, watch);
        return condition_();
    }
    int join(rv_Session session, const char* group, unsigned long activate = kActivate) {
        rvft_MemberId id = nullptr;
        return rvft_Join(session, &id, group, 1, 1, kBeat, 0, activate, Member::onAction, nullptr);
    }

    kvx::test::Daemon daemon;
    Session runner{"-"};

  private:
    static void onWatch(void*, void* closure, int, void*) {
        auto& self = *static_cast<GroupOnTheBus*>(closure);
        if (self.condition_() || kvx::platform::monotonicMs() > self.end_) {
            rv_StopLoop(self.runner.handle);
        }
    }
    std::function<bool()> condition_;
    kvx::platform::Milliseconds end_ = 0;
};

}  // namespace

TEST_F(GroupOnTheBus, ElectsTheBestAndHandsOverWhenItsSessionCloses) {
    Member backup(daemon.text(), 1);
    Member primary(daemon.text(), 2);
    ASSERT_TRUE(runUntil([&] { return primary.isActive && !backup.isActive; }));
    primary.session.close();
    EXPECT_TRUE(runUntil([&] { return backup.isActive; }));
    EXPECT_EQ(primary.actions, std::vector<int>{RVFT_ACTIVATE}) << "a leave is no action";
    EXPECT_EQ(rvft_Leave(primary.id), 5);
}

TEST_F(GroupOnTheBus, MayLeaveAndCloseInsideItsOwnAction) {
    Member leaving(daemon.text(), 2);
    Member closing(daemon.text(), 1);
    Member last(daemon.text(), 0);
    leaving.inAction = [&] { EXPECT_EQ(0, rvft_Leave(leaving.id)); };
    closing.inAction = [&] { closing.session.close(); };
    EXPECT_TRUE(runUntil([&] { return last.isActive; }));
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
    EXPECT_TRUE(runUntil([&] { return member.isActive; }));
}

TEST_F(GroupOnTheBus, RefusesWhatItCannotDoAndSaysWhy) {
    Session session(daemon.text());
    rv_Session synchronous = nullptr;
    ASSERT_EQ(0, rv_CreateSession(&synchronous, nullptr, "", "", daemon.text().c_str()));
    EXPECT_EQ(join(session.handle, ""), 1);
    EXPECT_EQ(join(session.handle, "g", kBeat - 1), 1);
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
