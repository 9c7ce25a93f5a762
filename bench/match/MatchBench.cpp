// The cost of finding the matching subscriptions of a message, against one look-up of the same text
// in a hash table, by the number of subscriptions.

#include <cstdio>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/support/Measure.h"
#include "rv/message/SubjectTree.h"

namespace {

using kvx::bench::Contestant;

constexpr std::size_t kQueries = 4096;    // different subjects, in turn
constexpr std::size_t kWildcardOf = 100;  // one of this many subscriptions is a wildcard
constexpr std::size_t kTimes = 20000;

struct Subscription {
    int hits = 0;
};

// Five elements, the first three shared by many.
std::string subjectOf(std::size_t i) {
    return "NET.REGION" + std::to_string(i % 97) + ".SITE" + std::to_string(i % 1009) + ".DEV" +
           std::to_string(i) + ".STATUS";
}

// In turn "*" for the device, ">" below a site of its own, "*" for a site.
std::string wildcardOf(std::size_t i) {
    const std::string region = "NET.REGION" + std::to_string(i % 97);
    switch (i / kWildcardOf % 3) {
        case 0:
            return region + ".SITE" + std::to_string(i) + ".*.STATUS";
        case 1:
            return region + ".SITE" + std::to_string(i) + ".>";
        default:
            return region + ".*.DEV" + std::to_string(i) + ".STATUS";
    }
}

class Scene {
  public:
    explicit Scene(std::size_t count) : subscriptions_(count) {
        table_.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            const bool isWildcard = count < kWildcardOf ? i == 0 : i % kWildcardOf == 0;
            const std::string text = isWildcard ? wildcardOf(i) : subjectOf(i);
            tree_.add(*kvx::Subject::fromText(text.c_str()), &subscriptions_[i]);
            table_.emplace(text, &subscriptions_[i]);
            if (!isWildcard) candidates_.push_back(i);
        }
        std::seed_seq seed{20261};
        std::mt19937 random(seed);
        for (std::size_t i = 0; i < kQueries; ++i) {
            texts_.push_back(subjectOf(candidates_[random() % candidates_.size()]));
            subjects_.push_back(*kvx::Subject::fromText(texts_.back().c_str()));
        }
    }

    std::vector<Contestant> contestants() {
        return {{"hash look-up of the text", [this](std::size_t times) { lookUp(times); }},
                {"SubjectTree::match", [this](std::size_t times) { match(times); }}};
    }

    // Both must find the same number; the tree no fewer.
    bool isSound() {
        for (std::size_t i = 0; i < kQueries; ++i) {
            if (tree_.match(subjects_[i], [](Subscription&) {}) < table_.count(texts_[i])) {
                return false;
            }
        }
        return true;
    }

  private:
    void lookUp(std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            const auto found = table_.find(texts_[next_++ % kQueries]);
            if (found != table_.end()) ++found->second->hits;
        }
    }
    void match(std::size_t times) {
        for (std::size_t i = 0; i < times; ++i) {
            tree_.match(subjects_[next_++ % kQueries], [](Subscription& found) { ++found.hits; });
        }
    }

    std::vector<Subscription> subscriptions_;
    kvx::SubjectTree<Subscription> tree_;
    std::unordered_map<std::string, Subscription*> table_;
    std::vector<std::size_t> candidates_;
    std::vector<std::string> texts_;
    std::vector<kvx::Subject> subjects_;
    std::size_t next_ = 0;
};

// Messages that cost most, matched in turns as the daemon does.
struct Hostile {
    const char* name;
    std::size_t patterns;
    std::string (*patternOf)(std::size_t i);
    std::string subject;
};

std::string repeated(const char* element, unsigned times) {
    std::string text;
    for (unsigned i = 0; i < times; ++i) text += element;
    return text;
}

// "a" or "*" for each of the lowest bits.
std::string bitsOf(std::size_t i, unsigned bits) {
    std::string text;
    for (unsigned bit = 0; bit < bits; ++bit) text += (i >> bit & 1U) != 0 ? "a." : "*.";
    return text;
}

void measureHostile(const Hostile& hostile) {
    std::vector<Subscription> subscriptions(hostile.patterns);
    kvx::SubjectTree<Subscription> tree;
    for (std::size_t i = 0; i < hostile.patterns; ++i) {
        tree.add(*kvx::Subject::fromText(hostile.patternOf(i).c_str()), &subscriptions[i]);
    }
    const kvx::Subject subject = *kvx::Subject::fromText(hostile.subject.c_str());
    const auto how =
        subject.view().hasWildcards() ? kvx::SubjectMatch::kCovered : kvx::SubjectMatch::kAny;
    constexpr std::size_t kTurn = 1000;
    std::size_t found = 0;
    std::size_t steps = 0;
    std::vector<double> turns;
    for (int round = 0; round < 5; ++round) {
        kvx::SubjectTree<Subscription>::Search search(tree, how);
        for (bool isDone = false; !isDone;) {
            std::size_t left = kTurn;
            turns.push_back(kvx::bench::timeOnce(
                {"",
                 [&](std::size_t) {
                     isDone = search.advance(subject, left, [&](Subscription&) { ++found; });
                 }},
                1));
            steps += kTurn - left;
        }
    }
    double all = 0;
    for (const double turn : turns) all += turn;
    const auto middle = turns.begin() + static_cast<std::ptrdiff_t>(turns.size() / 2);
    std::nth_element(turns.begin(), middle, turns.end());
    std::printf("%-44s %8zu %8zu %8zu %10.1f %8.1f\n", hostile.name, hostile.patterns, found / 5,
                steps / 5, all / 5000, *middle / 1000);
}

void measureHostileOnes() {
    const Hostile all[] = {
        {"\">\" over different patterns", 32'768,
         [](std::size_t i) { return std::to_string(i) + ".*"; }, ">"},
        {"*.*.* over literals", 1'000'000,
         [](std::size_t i) { return "A." + std::to_string(i) + ".B"; }, "*.*.*"},
        {"a...a over all of a and *", 262'144, [](std::size_t i) { return bitsOf(i, 18) + "a"; },
         repeated("a.", 18) + "a"},
        {"a...b over all of a and *, then a", 262'144,
         [](std::size_t i) { return bitsOf(i, 18) + "a"; }, repeated("a.", 18) + "b"},
        {"60 elements over *...* and one literal each", 32'768,
         [](std::size_t i) {
             return bitsOf(i * 2654435761U, 45) + repeated("*.", 14) + std::to_string(i % 7);
         },
         repeated("a.", 59) + "3"},
    };
    std::printf("\nThe worst messages, in turns of 1,000 steps.\n\n%-44s %8s %8s %8s %10s %8s\n",
                "message", "listens", "found", "steps", "us", "us a turn");
    for (const Hostile& hostile : all) measureHostile(hostile);
}

}  // namespace

int main() {
    std::printf(
        "Subjects of 5 elements, 1%% of the subscriptions wildcards; %zu different subjects are\n"
        "asked in turn, each with one exact subscriber. The baseline is\n"
        "std::unordered_map<std::string, ...>::find of the same dotted text. Each figure is the\n"
        "median of 31 interleaved rounds of %zu questions.\n\n%-30s %-26s %10s %8s\n",
        kQueries, kTimes, "subscriptions", "how", "ns", "ratio");
    for (const std::size_t count : {10UL, 10000UL, 1000000UL}) {
        Scene scene(count);
        if (!scene.isSound()) {
            std::fprintf(stderr, "the tree missed a subscription\n");
            return 1;
        }
        std::vector<Contestant> contestants = scene.contestants();
        kvx::bench::measure(contestants, kTimes);
        kvx::bench::printRows(std::to_string(count).c_str(), contestants);
    }
    measureHostileOnes();
    return 0;
}
