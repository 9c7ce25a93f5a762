// One member's view: what it does when, for the beats that it hears.

#include "rv/ft/Election.h"

namespace kvx::ft {
namespace {

constexpr Time kBeat = 1500;

const std::map<std::string, Rank> kRanks = {{"self", {50, 1000, "m"}},
                                            {"better", {50, 900, "older"}},
                                            {"second", {50, 950, "second"}},
                                            {"worse", {50, 1100, "younger"}}};
const std::map<std::string, MemberState> kStates = {{"waits", MemberState::Waiting},
                                                    {"leads", MemberState::Active},
                                                    {"leaves", MemberState::Leaving}};

// An election on a clock that goes from deadline to deadline.
struct Driven {
    explicit Driven(Time prepareMs = 0, std::uint32_t goal = 1)
        : election(kRanks.at("self"), {goal, kBeat, prepareMs, 4800}, 0) {
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
            election.advance(now);
            collect();
        }
        now = end;
    }
    // "until T": time passes; "under WHO until T": while that one leads; "at T": the loop stands
    // still until then; "lost", "back": the link; "WHO STATE": a beat.
    void play(const std::string& script) {
        std::istringstream words(script);
        std::optional<Beat> leader;
        for (std::string word, more; words >> word;) {
            if (word == "lost") {
                election.loseLink(now);
            } else if (word == "back") {
                election.restoreLink(now);
            } else if (word == "due") {
                election.advance(now);
            } else if (words >> more; word == "at") {
                now = std::stol(more);
            } else if (word == "under") {
                leader = Beat{kRanks.at(more), MemberState::Active};
            } else if (word == "until") {
                runUntil(std::stol(more), std::exchange(leader, std::nullopt));
            } else {
                hear(kRanks.at(word), kStates.at(more));
            }
            collect();
        }
    }
    void collect() {
        while (const auto step = election.takeStep()) {
            const std::string when = std::to_string(now) + ' ';
            if (*step == Step::Announce) {
                announced += when;
            } else {
                told += (*step == Step::Prepare    ? "prepare "
                         : *step == Step::Activate ? "activate "
                                                   : "deactivate ") +
                        when;
            }
        }
    }

    Election election;
    Time now = 0;
    std::string announced;
    std::string told;
};

struct Scenario {
    const char* what;
    const char* script;
    const char* told;
    Time prepareMs = 0;
    std::uint32_t goal = 1;
};

const Scenario kScenarios[] = {
    {"a worse one's beat finds the leader silent",
     "under better until 6000 until 10799 at 10800 worse waits worse waits", "activate 10800 "},
    {"silence counts from the last beat", "under better until 31000 until 40000",
     "activate 34800 "},
    {"the next in rank takes over at once from one that leaves",
     "under better until 10000 better leaves until 14000", "activate 10000 "},
    {"unless another is the next",
     "under better until 10000 second waits better leaves until 14000", ""},
    {"just joined, within one beat", "at 200 better leads better leaves until 10000",
     "activate 1500 "},
    {"also when it never heard of the one that leaves", "at 200 better leaves until 10000",
     "activate 1500 "},
    {"a worse active one is ignored", "under worse until 5000 better waits", "activate 4800 "},
    {"a better active one takes the lead", "under worse until 5000 better waits better leads",
     "activate 4800 deactivate 5000 "},
    {"one better of two leaves it active", "under better until 4800 better leads", "activate 4800 ",
     0, 2},
    {"two better of two do not", "under better until 4800 better leads second leads",
     "activate 4800 deactivate 4800 ", 0, 2},
    {"it prepares so long before it activates", "until 5000", "prepare 3800 activate 4800 ", 1000},
    {"also when the place is free at once", "under better until 10000 better leaves until 12000",
     "prepare 10000 activate 11000 ", 1000},
    {"and gives that up when a better one turns up", "until 4000 better waits until 8800",
     "prepare 3800 prepare 7800 activate 8800 ", 1000},
    {"cut off shortly", "until 5000 lost until 9000 back until 30000", "activate 4800 "},
    {"cut off for long", "until 5000 lost until 20000 back until 30000",
     "activate 4800 deactivate 9800 activate 24800 "},
    {"cut off for long, learned at the reconnect", "until 5000 lost at 9800 back until 30000",
     "activate 4800 deactivate 9800 activate 14600 "},
    {"its standstill is not the others' silence",  // it runs its timers before it reads
     "under better until 9000 at 30000 due better leads until 32000", ""},
    {"but one that is late again activates", "under better until 9000 at 30000 due at 34500 due",
     "activate 34500 "},
};

}  // namespace

TEST(Rank, GoesByWeightThenStartThenId) {
    EXPECT_TRUE((Rank{51, 9, "z"}).isBetterThan({50, 1, "a"}));
    EXPECT_TRUE((Rank{50, 1, "z"}).isBetterThan({50, 2, "a"}));
    EXPECT_TRUE((Rank{50, 1, "a"}).isBetterThan({50, 1, "b"}));
    EXPECT_FALSE((Rank{50, 1, "a"}).isBetterThan({50, 1, "a"}));
}

TEST(Election, TakesTheStepsOfEachScenario) {
    for (const Scenario& scenario : kScenarios) {
        Driven member(scenario.prepareMs, scenario.goal);
        member.play(scenario.script);
        EXPECT_EQ(member.told, scenario.told) << scenario.what;
    }
}

TEST(Election, AnnouncesItselfEachBeatAndWithEachAction) {
    Driven member;
    member.play("until 7000");
    EXPECT_EQ(member.election.beat().state, MemberState::Active);
    member.play("better leads");
    EXPECT_EQ(member.announced, "0 1500 3000 4500 4800 6300 7000 ");
}

TEST(Election, IsFreshWhileItsBeatsComeBackAndNobodyElseLeads) {
    Driven member;
    // Its announcement comes back.
    const auto echo = [&] { member.election.hear(member.election.beat(), member.now); };
    const auto isFresh = [&] { return member.election.isFresh(member.now); };
    echo();
    member.play("until 4799");
    const Beat waiting = member.election.beat();
    member.play("until 4800");
    member.election.hear({waiting.rank, waiting.state, 4800}, 4800);
    EXPECT_FALSE(isFresh()) << "only as one that waits";
    echo();
    member.play("until 5000");
    EXPECT_TRUE(isFresh());
    member.play("worse leads");
    EXPECT_FALSE(isFresh());
    member.play("worse waits at 9599");
    EXPECT_TRUE(isFresh());
    member.play("at 9600");
    EXPECT_FALSE(isFresh()) << "nothing has run since";
    member.play("due");
    EXPECT_FALSE(isFresh());
    echo();
    EXPECT_TRUE(isFresh());
    member.play("at 11000 lost at 14400 back");
    EXPECT_TRUE(member.election.isActive());
    echo();
    EXPECT_FALSE(isFresh()) << "another may lead and was not heard";
}

// Forged members fill the table, after or before the leader is known, and then leave.
TEST(Election, AFloodOfStrangersDoesNotHideTheLeader) {
    const auto flood = [](Driven& member, std::uint32_t weight, MemberState state) {
        for (std::size_t i = 0; i < Election::kMaximumPeers + 100; ++i)
            member.hear({weight, 1, "forged" + std::to_string(i)}, state);
    };
    for (const std::uint32_t weight : {40U, 60U}) {
        Driven member;
        member.play("under better until 4799");
        flood(member, weight, MemberState::Waiting);
        flood(member, weight, MemberState::Leaving);
        member.play("until 14400");
        EXPECT_EQ(member.told, "activate 9300 ");
    }
    for (const bool leave : {false, true}) {
        Driven member;
        flood(member, 60, MemberState::Active);
        member.play("under better until 1500");
        if (leave) flood(member, 60, MemberState::Leaving);
        member.play("under better until 14400");
        EXPECT_EQ(member.told, "") << (leave ? "they left" : "they fell silent");
    }
}

}  // namespace kvx::ft
