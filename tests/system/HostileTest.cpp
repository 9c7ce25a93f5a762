// Beside every kind of hostile client honest ones are served, and when it has gone the daemon is as
// before. What honest clients notice meanwhile is measured by bench_hostile.

#include "tests/support/Hostile.h"

#include <sys/resource.h>

#include "tests/support/Daemon.h"
#include "tests/support/ProcessUsage.h"
#include "tests/support/RawClient.h"
#include "tests/support/Sanitizer.h"

namespace kvx::test {
namespace {

constexpr int kSteps = kIsWatched ? 40 : 100;
constexpr int kQuestions = 20;
constexpr int kSmallSteps = 2'000;           // of a byte, or of a part of a giant
constexpr long long kMostLeft = 20LL << 20;  // bytes, once the hostile clients have gone

struct Beside {
    std::vector<std::string> troubles;
    int clients;
    int steps = kSteps;
};

// Everything alone, and two at once.
std::vector<Beside> table() {
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const int many = static_cast<int>(std::min<rlim_t>(3'000, descriptors.rlim_cur / 3));
    std::vector<Beside> all = {{{"floods", "cancels"}, 2},
                               {{"deaf", "patterns"}, 2},
                               {{"giants", "resets"}, 2},
                               {{"noise", "opens slowly"}, 10}};
    for (const auto& [name, what] : troubles()) {
        const bool isSmall = name == "giants" || name == "drips" || name == "opens slowly";
        all.push_back({{name}, name == "half open" ? many : 3, isSmall ? kSmallSteps : kSteps});
    }
    return all;
}

struct HostilePeers : testing::TestWithParam<Beside> {
    HostilePeers() {
        answerer.listen("HONEST.QUESTION");
        asker.listen("HONEST.ANSWER");
        ask();
    }

    void ask() {
        answerer.settle();
        asker.settle();
        asker.publish("HONEST.QUESTION", "?", "HONEST.ANSWER");
        const Received question = answerer.expectNext();
        answerer.publish(question.reply, "yes");
        ASSERT_EQ(asker.expectText(), "yes");
    }
    void askBesideThem() {
        std::vector<Troublemakers> all;
        for (const std::string& name : GetParam().troubles)
            all.emplace_back(name, GetParam().clients, daemon.port());
        const std::jthread troubling([&] {
            for (int steps = 0; steps < GetParam().steps; ++steps) {
                bool isBusy = false;
                for (Troublemakers& some : all) isBusy = some.step() || isBusy;
                if (!isBusy) platform::sleepMs(1);
            }
        });
        for (int i = 0; i < kQuestions; ++i) ask();
    }

    Daemon daemon{{"-memory", "128M"}};
    RawClient answerer = RawClient::session(daemon.port());
    RawClient asker = RawClient::session(daemon.port());
};

TEST_P(HostilePeers, AreServedBesideHonestOnesAndLeaveNothingBehind) {
    const long long descriptors = openDescriptors(daemon.pid());
    const long long resident = residentBytes(daemon.pid());
    askBesideThem();
    ask();
    EXPECT_TRUE(eventually([&] { return openDescriptors(daemon.pid()) <= descriptors; }));
    EXPECT_TRUE(kIsWatched ||
                eventually([&] { return residentBytes(daemon.pid()) <= resident + kMostLeft; }))
        << residentBytes(daemon.pid()) - resident;
    EXPECT_EQ(daemon.lawBrokenNow(), "");
    EXPECT_EQ(countersIn(daemon.log())["sessions.open"], 2U);
    EXPECT_EQ(countersIn(daemon.log())["listens.open"], 2U);
}

INSTANTIATE_TEST_SUITE_P(All, HostilePeers, testing::ValuesIn(table()), [](const auto& beside) {
    std::string name;
    for (const std::string& trouble : beside.param.troubles)
        name += (name.empty() ? "" : "_and_") + trouble;
    std::ranges::replace(name, ' ', '_');
    return name;
});

}  // namespace
}  // namespace kvx::test
