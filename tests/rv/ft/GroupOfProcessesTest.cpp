// A group of processes on a real daemon, of which members are killed, stopped and told to leave. It
// is judged by what they write, with the microseconds of the clock that all processes share: never
// two active members that hear each other for longer than one beat, never none for longer than the
// activation interval and a beat.
//
// No bound holds while a machine does not run the processes that keep it. So each member measures
// how late its loop and its messages are, and what stood still meanwhile is added to the bound.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Daemon.h"

namespace {

using kvx::test::ChildProcess;
using kvx::test::Daemon;
using kvx::test::eventually;

using Micros = long long;

constexpr Micros kBeat = 60'000;
constexpr Micros kActivate = 200'000;
constexpr Micros kUnseen = 25'000;  // a probe's interval, and delays too short for it to report
constexpr int kMembers = 3;

Micros now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct Span {
    Micros from = 0;
    Micros until = 0;
};
using Spans = std::vector<Span>;

Spans common(const Spans& a, const Spans& b) {
    Spans result;
    for (const Span& x : a) {
        for (const Span& y : b) {
            const Span both{std::max(x.from, y.from), std::min(x.until, y.until)};
            if (both.from < both.until) result.push_back(both);
        }
    }
    return result;
}

Spans merged(Spans spans) {
    std::ranges::sort(spans, {}, &Span::from);
    Spans result;
    for (const Span& span : spans) {
        if (!result.empty() && span.from <= result.back().until) {
            result.back().until = std::max(result.back().until, span.until);
        } else {
            result.push_back(span);
        }
    }
    return result;
}

Spans without(const Spans& spans, const Spans& holes) {
    Spans rest{{0, 0}};
    for (const Span& hole : merged(holes)) {
        rest.back().until = hole.from;
        rest.push_back({hole.until, 0});
    }
    rest.back().until = std::numeric_limits<Micros>::max();
    return common(spans, rest);
}

struct Takeover {
    Micros when;
    Micros heard;  // the last beat of a better member, or when the daemon came back
};

// What one member has said.
struct Diary {
    Diary(const std::string& output, Micros ended) {
        std::istringstream lines(output);
        std::string what;
        Micros first = 0;
        Micros second = 0;
        Micros connected = 0;  // what was heard before that is no news
        while (lines >> what >> first >> second) {
            if (what == "joined") hasJoined = true;
            if (what == "late") late.push_back({first, second});
            if (what == "disconnected") away.push_back({first, ended});
            if (what == "connected") away.back().until = connected = first;
            if (what == "active") {
                active.push_back({first, ended});
                takeovers.push_back({first, std::max(second, connected)});
            }
            if (what == "inactive") active.back().until = first;
        }
        isActive = !active.empty() && active.back().until == ended;
    }

    bool hasJoined = false;
    bool isActive = false;
    Spans active;
    Spans late;
    Spans away;
    std::vector<Takeover> takeovers;
};

struct Member {
    explicit Member(const std::string& daemon)
        : process(KVX_GROUP_MEMBER,
                  {daemon, std::to_string(kBeat / 1000), std::to_string(kActivate / 1000)}) {}
    Diary diary() const {
        Diary diary(process.output(), ended);
        diary.away.insert(diary.away.end(), stopped.begin(), stopped.end());
        diary.active = without(diary.active, stopped);
        diary.late = without(diary.late, stopped);
        return diary;
    }

    ChildProcess process;
    Micros ended = std::numeric_limits<Micros>::max();
    Spans stopped;
};

class GroupOfProcesses : public testing::Test {
  protected:
    GroupOfProcesses() {
        for (int i = 0; i < kMembers; ++i) join();
    }
    void join() { members.push_back(std::make_unique<Member>(daemon.text())); }

    std::vector<Member*> present() const {
        std::vector<Member*> result;
        for (const auto& member : members) {
            if (member->ended == std::numeric_limits<Micros>::max()) result.push_back(member.get());
        }
        return result;
    }
    std::vector<Member*> leaders() const {
        auto result = present();
        std::erase_if(result, [](const Member* member) { return !member->diary().isActive; });
        return result;
    }
    // The one active member, once all are there.
    Member* settled() {
        const bool isSettled = eventually([&] {
            return leaders().size() == 1 &&
                   std::ranges::all_of(
                       present(), [](const Member* member) { return member->diary().hasJoined; });
        });
        EXPECT_TRUE(isSettled);
        return isSettled ? leaders().front() : nullptr;
    }
    void waitSomePartOfABeat() { usleep(static_cast<unsigned>(random() % kBeat)); }
    void kill(Member& member) {
        member.ended = now();
        member.process.kill(SIGKILL);
        member.process.wait();
    }
    void leave(Member& member) {
        member.ended = now();
        leaves.push_back(member.ended);
        member.process.kill(SIGTERM);
        EXPECT_EQ(member.process.wait(), 0) << member.process.errors();
    }
    template <class Condition>
    void stopUntil(Member& member, Condition&& condition) {
        const Micros from = now();
        member.process.kill(SIGSTOP);
        EXPECT_TRUE(eventually(condition));
        member.process.kill(SIGCONT);
        member.stopped.push_back({from, now()});
    }

    // `takeovers` is how often the lead must have changed hands at least.
    void judge(std::size_t takeovers) {
        std::vector<Diary> diaries;
        for (const auto& member : members) diaries.push_back(member->diary());
        for (const Diary& diary : diaries) {
            const Spans seen = without(diary.late, deaf);
            late.insert(late.end(), seen.begin(), seen.end());
        }
        late = merged(late);
        for (std::size_t i = 0; i < diaries.size(); ++i) {
            for (std::size_t j = 0; j < i; ++j) judgeTogether(diaries[i], diaries[j]);
        }
        EXPECT_GE(judgeGaps(diaries), takeovers);
    }

    Daemon daemon;
    std::mt19937 random{1};
    std::vector<std::unique_ptr<Member>> members;
    std::vector<Micros> leaves;
    Spans deaf;  // when nobody could hear anybody

  private:
    // How long something did not run that should have.
    Micros standstill(Span span) const {
        Micros sum = 0;
        for (const Span& part : common({span}, late)) sum += part.until - part.from;
        return sum;
    }
    void expectWithin(Span span, Micros bound, const char* what) const {
        EXPECT_LE(span.until - span.from, bound + standstill(span) + kUnseen)
            << what << ", of which " << standstill(span) << " stood still";
    }
    void judgeTogether(const Diary& one, const Diary& other) const {
        Spans apart = deaf;
        apart.insert(apart.end(), one.away.begin(), one.away.end());
        apart.insert(apart.end(), other.away.begin(), other.away.end());
        for (const Span& span : without(common(one.active, other.active), apart)) {
            expectWithin(span, kBeat, "two active");
        }
    }
    std::size_t judgeGaps(const std::vector<Diary>& diaries) const {
        Spans active;
        for (const Diary& diary : diaries) {
            active.insert(active.end(), diary.active.begin(), diary.active.end());
        }
        active = merged(active);
        for (std::size_t i = 1; i < active.size(); ++i) {
            Span gap{active[i - 1].until, active[i].from};
            const bool isLeave = std::ranges::count(leaves, gap.from) > 0;
            for (const Diary& diary : diaries) {
                for (const Span& away : diary.away) {
                    if (away.until <= gap.until) gap.from = std::max(gap.from, away.until);
                }
            }
            expectWithin(gap, isLeave ? kBeat : kActivate + kBeat, "none active");
            if (!isLeave) judgeTakeover(diaries, gap);
        }
        return active.size() - 1;
    }
    void judgeTakeover(const std::vector<Diary>& diaries, Span gap) const {
        for (const Diary& diary : diaries) {
            for (const Takeover& takeover : diary.takeovers) {
                if (takeover.when != gap.until) continue;
                EXPECT_GE(takeover.when - takeover.heard, kActivate - kBeat);
                expectWithin({takeover.heard, takeover.when}, kActivate + kBeat, "takeover");
            }
        }
    }

    Spans late;
};

}  // namespace

TEST_F(GroupOfProcesses, KeepsOneActiveThroughFiftyKills) {
    for (int i = 0; i < 50; ++i) {
        Member* leader = settled();
        ASSERT_NE(leader, nullptr);
        waitSomePartOfABeat();
        kill(i % 5 == 4 ? *present().back() : *leader);
        join();
    }
    ASSERT_NE(settled(), nullptr);
    judge(40);
}

TEST_F(GroupOfProcesses, HandsOverWithinOneBeatWhenTheActiveOneLeaves) {
    for (int i = 0; i < 20; ++i) {
        Member* leader = settled();
        ASSERT_NE(leader, nullptr);
        waitSomePartOfABeat();
        leave(*leader);
        join();
    }
    ASSERT_NE(settled(), nullptr);
    judge(20);
}

TEST_F(GroupOfProcesses, EndsWithOneActiveWhenThoseThatCouldNotHearOneAnotherMeetAgain) {
    const auto twoAreActive = [&] { return leaders().size() > 1; };
    for (int i = 0; i < 3; ++i) {
        Member* leader = settled();
        ASSERT_NE(leader, nullptr);
        stopUntil(*leader, twoAreActive);
        EXPECT_EQ(settled(), leader) << "the better one has the lead again";
        // All that is sent waits in the sockets until the daemon goes on.
        const Micros from = now();
        ::kill(daemon.pid(), SIGSTOP);
        EXPECT_TRUE(eventually(twoAreActive));
        ::kill(daemon.pid(), SIGCONT);
        deaf.push_back({from, now()});
        EXPECT_EQ(settled(), leader);
    }
    judge(3);
}

TEST_F(GroupOfProcesses, EndsWithOneActiveWhenTheDaemonComesBack) {
    ASSERT_NE(settled(), nullptr);
    const Micros from = now();
    daemon.kill();
    daemon.restart();
    EXPECT_TRUE(eventually([&] {
        return std::ranges::all_of(present(), [](const Member* member) {
            return member->process.output().find("\nconnected") != std::string::npos;
        });
    }));
    deaf.push_back({from, now()});
    ASSERT_NE(settled(), nullptr);
    judge(0);
}
