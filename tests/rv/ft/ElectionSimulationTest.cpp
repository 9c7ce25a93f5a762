// Many members on a simulated network that kills, stops, delays, cuts off and heals at random. What
// is checked at each millisecond is what a service relies on: not too many active members for
// longer than one beat among those that run and hear one another, and an active one after the
// activation interval and a beat at the latest once it is settled who is best. And a member that
// stood still never takes the lead from one that did not. Not for a millisecond are more active and
// fresh, and one that stays best and active is fresh by then.

#include "rv/ft/Election.h"

using kvx::ft::Beat;
using kvx::ft::Election;
using kvx::ft::MemberState;
using kvx::ft::Rank;
using kvx::ft::Rules;
using kvx::ft::Step;
using kvx::ft::Time;

namespace {

constexpr Time kLongestWay = 6;  // to the daemon, or from it
constexpr Time kLongestDelay = 2 * kLongestWay;

struct Participant {
    Rank rank;
    std::unique_ptr<Election> election;
    Time joined;  // or when it came back or went on
    Time deadline;
    bool isCutOff = false;
    bool isActive = false;
    Time activeSince = 0;
    Time standsUntil = 0;
    Time unfreshSince = 0;
    Time lastArrival = 0;  // at the daemon, of what it sent
    std::deque<std::pair<Time, Beat>> incoming = {};

    bool runs(Time now) const { return election && standsUntil <= now; }
    bool isHeard(Time now) const { return runs(now) && !isCutOff; }
};

class Network {
  public:
    Network(unsigned seed, const Rules& rules) : rules_(rules), random_(seed) {}

    void run(Time length) {
        Time nextDisturbance = 0;
        for (const Time end = now_ + length; now_ < end; ++now_) {
            if (now_ >= nextDisturbance) {
                disturb();
                nextDisturbance = now_ + pick(3 * rules_.activateMs);
            }
            for (auto& [due, beat] : atDaemon_) {
                if (due <= now_) deliver(beat);
            }
            atDaemon_.erase(atDaemon_.begin(), atDaemon_.upper_bound(now_));
            checkFresh();
            for (std::size_t i = 0; i < members_.size(); ++i) turn(i);
            check();
            checkFresh();
            if (testing::Test::HasFailure()) return;
        }
    }

    std::string history;
    int activations = 0;

  private:
    Time pick(Time bound) { return std::uniform_int_distribution<Time>(0, bound - 1)(random_); }

    void note(const char* what, std::size_t who) {
        history += std::to_string(now_) + " " + what + " " + std::to_string(who) + "\n";
    }

    void disturb() {
        const auto who = static_cast<std::size_t>(pick(8));
        if (who >= members_.size() || !members_[who].election) return join(who);
        Participant& member = members_[who];
        if (member.standsUntil > now_) return;
        switch (pick(5)) {
            case 0:
                return die(who, "kill");
            case 1:
                send(who, member.election->farewell());
                return die(who, "leave");
            case 2:
            case 3:
                return stop(who);
            default:
                return member.isCutOff ? reconnect(who) : cutOff(who);
        }
    }

    void join(std::size_t who) {
        note("join", who);
        if (who >= members_.size()) members_.resize(who + 1);
        Rank rank{.weight = static_cast<std::uint32_t>(50 + pick(3)),
                  .start = static_cast<std::uint64_t>(now_),
                  .id = std::to_string(who) + "." + std::to_string(++incarnations_)};
        members_[who] = {.rank = rank,
                         .election = std::make_unique<Election>(rank, rules_, now_),
                         .joined = now_,
                         .deadline = now_};
        carryOut(who);
    }
    void die(std::size_t who, const char* how) {
        note(how, who);
        unsettle(who);
        members_[who].election.reset();
    }
    void stop(std::size_t who) {
        note("stop", who);
        unsettle(who);
        members_[who].joined = members_[who].standsUntil = now_ + 1 + pick(3 * rules_.activateMs);
    }
    // What a loop does when it goes on: first the timers, then the messages.
    void turn(std::size_t who) {
        Participant& member = members_[who];
        if (!member.runs(now_)) return;
        if (member.standsUntil == now_) {
            note("goes on", who);
            if (!member.isCutOff) crowded_ = now_;
        }
        if (member.deadline <= now_) {
            member.election->advance(now_);
            carryOut(who);
        }
        auto& messages = member.incoming;
        for (; !messages.empty() && messages.front().first <= now_; messages.pop_front()) {
            member.election->hear(messages.front().second, now_);
            carryOut(who);
        }
    }
    void unsettle(std::size_t who) {
        if (best() == &members_[who]) settled_ = now_ + kLongestDelay;
    }
    void cutOff(std::size_t who) {
        note("cut", who);
        unsettle(who);
        members_[who].isCutOff = true;
        members_[who].incoming.clear();
        members_[who].election->loseLink(now_);
        carryOut(who);
    }
    void reconnect(std::size_t who) {
        note("reconnect", who);
        members_[who].isCutOff = false;
        members_[who].joined = crowded_ = now_;
        members_[who].election->restoreLink(now_);
        carryOut(who);
    }

    void send(std::size_t who, const Beat& beat) {
        Participant& sender = members_[who];
        if (sender.isCutOff) return;
        sender.lastArrival = std::max(sender.lastArrival, now_ + 1 + pick(kLongestWay));
        atDaemon_.emplace(sender.lastArrival, beat);
    }
    void deliver(const Beat& beat) {
        for (Participant& member : members_) {
            if (!member.election || member.isCutOff) continue;
            auto& queue = member.incoming;
            const Time due = now_ + pick(kLongestWay);
            queue.emplace_back(queue.empty() ? due : std::max(due, queue.back().first), beat);
        }
    }
    void carryOut(std::size_t who) {
        Participant& member = members_[who];
        while (const auto step = member.election->takeStep()) {
            if (*step == Step::Announce) {
                send(who, member.election->beat());
                continue;
            }
            ASSERT_EQ(*step == Step::Deactivate, member.isActive) << history;
            member.isActive = *step == Step::Activate;
            member.activeSince = now_;
            if (member.isActive) checkIsWanted(member);
            activations += member.isActive ? 1 : 0;
            note(member.isActive ? "active" : "inactive", who);
        }
        member.deadline = member.election->nextDeadline();
    }

    const Participant* best() const {
        const Participant* found = nullptr;
        for (const Participant& member : members_) {
            if (!member.isHeard(now_)) continue;
            if (found == nullptr || member.rank.isBetterThan(found->rank)) found = &member;
        }
        return found;
    }

    void check() {
        const Participant* leader = best();
        const auto active = std::ranges::count_if(members_, [this](const Participant& member) {
            return member.isHeard(now_) && member.isActive;
        });
        if (active <= rules_.activeGoal) crowded_ = now_;
        ASSERT_LE(now_ - crowded_, rules_.heartbeatMs + kLongestDelay) << active << " active\n"
                                                                       << history;
        if (leader == nullptr || active > 0) {
            deserted_ = now_;
            return;
        }
        const Time since = std::max({deserted_, settled_, leader->joined});
        ASSERT_LE(now_ - since, rules_.activateMs + rules_.heartbeatMs + kLongestDelay)
            << "none active\n"
            << history;
    }

    void checkFresh() {
        std::int64_t fresh = 0;
        for (Participant& member : members_) {
            if (!member.runs(now_) || !member.isActive) continue;
            const bool isFresh = member.election->isFresh(now_);
            fresh += isFresh ? 1 : 0;
            if (isFresh || &member != best() || crowded_ != now_) member.unfreshSince = now_;
            const Time since = std::max({member.unfreshSince, member.joined, settled_});
            ASSERT_LE(now_ - since, rules_.activateMs + rules_.heartbeatMs + kLongestDelay)
                << "the best is not fresh\n"
                << history;
        }
        ASSERT_LE(fresh, rules_.activeGoal) << "at " << now_ << "\n" << history;
    }

    // Enough better ones that were there, running and active all the time must have kept it back.
    void checkIsWanted(const Participant& member) {
        const auto steady = std::ranges::count_if(members_, [&](const Participant& other) {
            const Time since = std::max({other.activeSince, other.joined, member.joined});
            return other.isHeard(now_) && other.isActive && !member.isCutOff &&
                   other.rank.isBetterThan(member.rank) && since + 2 * rules_.activateMs < now_;
        });
        ASSERT_LT(steady, rules_.activeGoal) << history;
    }

    Rules rules_;
    std::mt19937 random_;
    Time now_ = 0;
    int incarnations_ = 0;
    std::vector<Participant> members_;
    std::multimap<Time, Beat> atDaemon_;
    Time settled_ = 0;   // since when it is clear who could be best
    Time crowded_ = 0;   // when there were last not too many
    Time deserted_ = 0;  // when there was last an active one, or nobody at all
};

class ElectionSimulation : public testing::TestWithParam<unsigned> {};

}  // namespace

TEST_P(ElectionSimulation, KeepsAsManyActiveAsTheGoalThroughKillsLeavesStopsAndCuts) {
    for (const unsigned goal : {1U, 3U}) {
        Network network(GetParam() + goal,
                        {.activeGoal = goal, .heartbeatMs = 150, .activateMs = 480});
        network.run(goal == 1 ? 200'000 : 100'000);
        EXPECT_GT(network.activations, 20);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ElectionSimulation, testing::Range(1U, 17U, 2U));
