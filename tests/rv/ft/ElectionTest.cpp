// One member's view: what it does when, for the beats that it hears.

#include "rv/ft/Election.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using kvx::ft::Beat;
using kvx::ft::Election;
using kvx::ft::MemberState;
using kvx::ft::Rank;
using kvx::ft::Rules;
using kvx::ft::Step;
using kvx::ft::Time;

namespace {

constexpr Time kBeat = 1500;
constexpr Time kActivate = 4800;
const Rules kService{
    .activeGoal = 1, .heartbeatMs = kBeat, .prepareMs = 0, .activateMs = kActivate};

Rank rank(std::uint32_t weight, std::uint64_t start, const char* id) {
    return {weight, start, id};
}

const Rank kSelf = rank(50, 1000, "m");
const Rank kBetter = rank(50, 900, "older");
const Rank kWorse = rank(50, 1100, "younger");

const Rules kPrepared{
    .activeGoal = 1, .heartbeatMs = kBeat, .prepareMs = 1000, .activateMs = kActivate};

struct Told {
    Step action;
    Time when;
    bool operator==(const Told&) const = default;
};

// An election on a clock that goes from deadline to deadline.
class Driven {
  public:
    explicit Driven(const Rules& rules = kService, const Rank& self = kSelf)
        : election(self, rules, 0) {
        collect();
    }

    void hear(const Rank& who, MemberState state) {
        election.hear(Beat{who, state}, now);
        collect();
    }

    // Meanwhile `who`, when given, beats at each heartbeat.
    void runUntil(Time end, std::optional<Beat> who = std::nullopt) {
        Time nextHeard = who ? now : end + 1;
        while (true) {
            const Time next = std::min(std::max(now, election.nextDeadline()), nextHeard);
            if (next > end) break;
            now = next;
            if (now == nextHeard) {
                election.hear(*who, now);
                nextHeard += kBeat;
            }
            advance();
        }
        now = end;
    }

    void advance() {
        election.advance(now);
        collect();
    }
    void loseLink() { election.loseLink(now); }
    void restoreLink() {
        election.restoreLink(now);
        collect();
    }

    void collect() {
        while (const auto step = election.takeStep()) {
            if (*step == Step::Announce) {
                announced.push_back(now);
            } else {
                told.push_back({*step, now});
            }
        }
    }

    Election election;
    Time now = 0;
    std::vector<Time> announced;
    std::vector<Told> told;
};

using Actions = std::vector<Told>;

}  // namespace

TEST(Rank, GoesByWeightThenStartThenId) {
    EXPECT_TRUE(rank(51, 9, "z").isBetterThan(rank(50, 1, "a")));
    EXPECT_TRUE(rank(50, 1, "z").isBetterThan(rank(50, 2, "a")));
    EXPECT_TRUE(rank(50, 1, "a").isBetterThan(rank(50, 1, "b")));
    EXPECT_FALSE(rank(50, 1, "a").isBetterThan(rank(50, 1, "a")));
}

TEST(Election, ActivatedByTheBeatOfAWorseOneForgetsTheSilentLeader) {
    Driven member;
    member.runUntil(4 * kBeat, Beat{kBetter, MemberState::Active});
    member.runUntil(4 * kBeat + kActivate - 1);
    ++member.now;
    member.hear(kWorse, MemberState::Waiting);
    member.hear(kWorse, MemberState::Waiting);
    EXPECT_EQ(member.told, (Actions{{Step::Activate, 4 * kBeat + kActivate}}));
}

TEST(Election, AloneActivatesAfterTheActivationIntervalAndAnnouncesItselfEachBeat) {
    Driven member;
    member.runUntil(7000);
    EXPECT_EQ(member.told, (Actions{{Step::Activate, kActivate}}));
    EXPECT_EQ(member.announced, (std::vector<Time>{0, 1500, 3000, 4500, 4800, 6300}));
    EXPECT_EQ(member.election.beat().state, MemberState::Active);
}

TEST(Election, CountsSilenceFromTheLastBeatHeard) {
    Driven member;
    member.runUntil(31000, Beat{kBetter, MemberState::Active});
    EXPECT_EQ(member.told, Actions{});
    const Time lastHeard = 30000;
    member.runUntil(40000);
    EXPECT_EQ(member.told, (Actions{{Step::Activate, lastHeard + kActivate}}));
}

TEST(Election, TakesOverAtOnceFromAnActiveMemberThatLeavesUnlessAnotherIsNextInRank) {
    for (const bool isNext : {true, false}) {
        Driven member;
        member.runUntil(10000, Beat{kBetter, MemberState::Active});
        if (!isNext) member.hear(rank(50, 950, "second"), MemberState::Waiting);
        member.hear(kBetter, MemberState::Leaving);
        member.runUntil(14000);
        EXPECT_EQ(member.told, (isNext ? Actions{{Step::Activate, 10000}} : Actions{}));
    }
}

TEST(Election, TakesOverWithinOneBeatOfALeaveEvenWhenJustJoined) {
    for (const bool hasHeardOfIt : {true, false}) {
        Driven member;
        member.now = 200;
        if (hasHeardOfIt) member.hear(kBetter, MemberState::Active);
        member.hear(kBetter, MemberState::Leaving);
        member.runUntil(10000);
        EXPECT_EQ(member.told, (Actions{{Step::Activate, kBeat}}));
    }
}

TEST(Election, StepsBackWhenItHearsABetterActiveMemberAndIgnoresWorseOnes) {
    Driven member;
    member.runUntil(5000, Beat{kWorse, MemberState::Active});
    EXPECT_EQ(member.told, (Actions{{Step::Activate, kActivate}}));
    member.hear(kBetter, MemberState::Waiting);
    EXPECT_EQ(member.told.size(), 1U);
    member.hear(kBetter, MemberState::Active);
    EXPECT_EQ(member.told.back(), (Told{Step::Deactivate, 5000}));
    EXPECT_EQ(member.announced.back(), 5000);
}

TEST(Election, KeepsAsManyActiveAsTheGoal) {
    Rules two = kService;
    two.activeGoal = 2;
    Driven member(two);
    member.runUntil(kActivate, Beat{kBetter, MemberState::Active});
    EXPECT_EQ(member.told, (Actions{{Step::Activate, kActivate}}));
    member.hear(kBetter, MemberState::Active);
    EXPECT_EQ(member.told.size(), 1U);
    member.hear(rank(50, 950, "second"), MemberState::Active);
    EXPECT_EQ(member.told.back(), (Told{Step::Deactivate, kActivate}));
}

TEST(Election, PreparesThePreparationIntervalBeforeActivating) {
    Driven joining(kPrepared);
    joining.runUntil(5000);
    EXPECT_EQ(joining.told, (Actions{{Step::Prepare, 3800}, {Step::Activate, 4800}}));

    Driven successor(kPrepared);
    successor.runUntil(10000, Beat{kBetter, MemberState::Active});
    successor.hear(kBetter, MemberState::Leaving);
    successor.runUntil(12000);
    EXPECT_EQ(successor.told, (Actions{{Step::Prepare, 10000}, {Step::Activate, 11000}}));
}

TEST(Election, GivesUpAPreparationWhenABetterMemberTurnsUp) {
    Driven member(kPrepared);
    member.runUntil(4000);
    member.hear(kBetter, MemberState::Waiting);
    member.runUntil(4000 + kActivate);
    EXPECT_EQ(member.told, (Actions{{Step::Prepare, 3800},
                                    {Step::Prepare, 3000 + kActivate},
                                    {Step::Activate, 4000 + kActivate}}));
}

TEST(Election, CutOffForTheActivationIntervalItStepsBackAndStartsAnew) {
    struct Case {
        const char* what;
        Time back;
        bool isTimely;  // a loop may stand still in the attempts to reconnect
        Actions told;
    };
    constexpr Time kStepBack = 5000 + kActivate;
    const Told first{Step::Activate, kActivate};
    const Told stepBack{Step::Deactivate, kStepBack};
    for (const Case& cut : {
             Case{"shortly", 9000, true, {first}},
             Case{"long", 20000, true, {first, stepBack, {Step::Activate, 20000 + kActivate}}},
             Case{"learned at the reconnect",
                  kStepBack,
                  false,
                  {first, stepBack, {Step::Activate, kStepBack + kActivate}}},
         }) {
        SCOPED_TRACE(cut.what);
        Driven member;
        member.runUntil(5000);
        member.loseLink();
        if (cut.isTimely) member.runUntil(cut.back);
        member.now = cut.back;
        member.restoreLink();
        member.runUntil(30000);
        EXPECT_EQ(member.told, cut.told);
    }
}

TEST(Election, AFloodOfStrangersDoesNotHideTheLeader) {
    for (const std::uint32_t weight : {40U, 60U}) {
        Driven member;
        member.runUntil(kActivate - 1, Beat{kBetter, MemberState::Active});
        const Time lastHeard = 3 * kBeat;
        std::vector<std::string> strangers;
        for (std::size_t i = 0; i < Election::kMaximumPeers + 100; ++i)
            strangers.push_back("forged" + std::to_string(i));
        for (const auto& id : strangers)
            member.hear(rank(weight, 1, id.c_str()), MemberState::Waiting);
        for (const auto& id : strangers)
            member.hear(rank(weight, 1, id.c_str()), MemberState::Leaving);
        member.runUntil(3 * kActivate);
        EXPECT_EQ(member.told, (Actions{{Step::Activate, lastHeard + kActivate}}));
    }
}

TEST(Election, ALeaderThatFindsTheTableFullIsHeardAllTheSame) {
    for (const bool leave : {false, true}) {
        Driven member;
        std::vector<Rank> strangers;
        for (std::size_t i = 0; i < Election::kMaximumPeers; ++i)
            strangers.push_back(rank(60, 1, ("forged" + std::to_string(i)).c_str()));
        for (const Rank& stranger : strangers) member.hear(stranger, MemberState::Active);
        member.runUntil(kBeat, Beat{kBetter, MemberState::Active});
        for (const Rank& stranger : strangers)
            if (leave) member.hear(stranger, MemberState::Leaving);
        member.runUntil(3 * kActivate, Beat{kBetter, MemberState::Active});
        EXPECT_EQ(member.told, Actions{}) << (leave ? "they left" : "they fell silent");
    }
}

// A thread that stood still finds its timers due before it reads what came meanwhile.
TEST(Election, DoesNotTakeItsOwnStandstillForTheOthersSilence) {
    Driven member;
    member.runUntil(9000, Beat{kBetter, MemberState::Active});
    member.now = 30000;
    member.advance();
    member.hear(kBetter, MemberState::Active);
    member.runUntil(32000);
    EXPECT_EQ(member.told, Actions{});
    for (; member.now < 60000; member.now += 3 * kBeat) member.advance();
    EXPECT_EQ(member.told.size(), 1U) << "one that is always late activates all the same";
}
