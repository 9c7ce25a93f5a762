// Many members on a simulated network that kills, cuts and heals at random. What is checked at each
// millisecond is what a service relies on: not too many active members for longer than one beat
// among those that hear one another, and an active one after the activation interval and a beat at
// the latest once it is settled who is best.

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "rv/ft/Election.h"

using kvx::ft::Beat;
using kvx::ft::Election;
using kvx::ft::MemberState;
using kvx::ft::Rank;
using kvx::ft::Rules;
using kvx::ft::Step;
using kvx::ft::Time;

namespace {

constexpr Time kLatency = 3;
constexpr int kSides = 2;
constexpr int kCutOff = -1;  // without a daemon: on no side

struct Participant {
    Rank rank;
    std::unique_ptr<Election> election;
    int side;
    Time joined;
    Time deadline;
    bool isActive = false;
};

struct InFlight {
    Time due;
    std::size_t sender;
    int side;
    Beat beat;
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
            deliver();
            for (std::size_t i = 0; i < members_.size(); ++i) {
                if (members_[i].election && members_[i].deadline <= now_) {
                    members_[i].election->advance(now_);
                    carryOut(i);
                }
            }
            for (int side = 0; side < kSides; ++side) check(side);
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
        switch (pick(5)) {
            case 0:
                return die(who, "kill");
            case 1:
                send(who, member.election->farewell());
                return die(who, "leave");
            case 2:
                return partition();
            case 3:
                return heal();
            default:
                return member.side == kCutOff ? reconnect(who) : cutOff(who);
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
                         .side = static_cast<int>(pick(sides_)),
                         .joined = now_,
                         .deadline = now_};
        carryOut(who);
    }
    void die(std::size_t who, const char* how) {
        note(how, who);
        const int side = members_[who].side;
        if (side != kCutOff && best(side) == &members_[who]) settled_[side] = now_;
        members_[who].election.reset();
    }
    void partition() {
        note("partition", 0);
        sides_ = kSides;
        regroup();
    }
    void heal() {
        note("heal", 0);
        sides_ = 1;
        regroup();
    }
    void regroup() {
        for (Participant& member : members_) {
            if (member.side != kCutOff) member.side = static_cast<int>(pick(sides_));
        }
        for (int side = 0; side < kSides; ++side) {
            settled_[side] = crowded_[side] = now_;
        }
    }
    void cutOff(std::size_t who) {
        note("cut", who);
        const int side = members_[who].side;
        if (best(side) == &members_[who]) settled_[side] = now_;
        members_[who].side = kCutOff;
        members_[who].election->loseLink(now_);
        carryOut(who);
    }
    void reconnect(std::size_t who) {
        note("reconnect", who);
        members_[who].side = static_cast<int>(pick(sides_));
        members_[who].joined = now_;
        members_[who].election->restoreLink(now_);
        carryOut(who);
    }

    void send(std::size_t who, const Beat& beat) {
        if (members_[who].side != kCutOff) {
            inFlight_.push_back({now_ + kLatency, who, members_[who].side, beat});
        }
    }
    void deliver() {
        while (!inFlight_.empty() && inFlight_.front().due <= now_) {
            const InFlight message = inFlight_.front();
            inFlight_.pop_front();
            for (std::size_t i = 0; i < members_.size(); ++i) {
                if (!members_[i].election || members_[i].side != message.side) continue;
                members_[i].election->hear(message.beat, now_);
                carryOut(i);
            }
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
            activations += member.isActive ? 1 : 0;
            note(member.isActive ? "active" : "inactive", who);
        }
        member.deadline = member.election->nextDeadline();
    }

    const Participant* best(int side) const {
        const Participant* found = nullptr;
        for (const Participant& member : members_) {
            if (!member.election || member.side != side) continue;
            if (found == nullptr || member.rank.isBetterThan(found->rank)) found = &member;
        }
        return found;
    }

    void check(int side) {
        const Participant* leader = best(side);
        unsigned active = 0;
        for (const Participant& member : members_) {
            if (member.election && member.side == side && member.isActive) ++active;
        }
        if (active <= rules_.activeGoal) crowded_[side] = now_;
        ASSERT_LE(now_ - crowded_[side], rules_.heartbeatMs + kLatency)
            << active << " active on side " << side << "\n"
            << history;
        if (leader == nullptr || active > 0) {
            deserted_[side] = now_;
            return;
        }
        const Time since = std::max({deserted_[side], settled_[side], leader->joined});
        ASSERT_LE(now_ - since, rules_.activateMs + rules_.heartbeatMs)
            << "none active on side " << side << "\n"
            << history;
    }

    Rules rules_;
    std::mt19937 random_;
    Time now_ = 0;
    int sides_ = 1;
    int incarnations_ = 0;
    std::vector<Participant> members_;
    std::deque<InFlight> inFlight_;
    Time settled_[kSides] = {};   // since when it is clear who could be best
    Time crowded_[kSides] = {};   // when there were last not too many
    Time deserted_[kSides] = {};  // when there was last an active one, or nobody at all
};

class ElectionSimulation : public testing::TestWithParam<unsigned> {};

}  // namespace

TEST_P(ElectionSimulation, KeepsOneActiveMemberThroughKillsLeavesCutsAndMerges) {
    Network network(GetParam(), {.activeGoal = 1, .heartbeatMs = 150, .activateMs = 480});
    network.run(200'000);
    EXPECT_GT(network.activations, 25);
}

TEST_P(ElectionSimulation, KeepsToALargerGoal) {
    Network network(GetParam() + 1000, {.activeGoal = 3, .heartbeatMs = 150, .activateMs = 480});
    network.run(100'000);
    EXPECT_GT(network.activations, 25);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ElectionSimulation, testing::Range(1U, 9U));
