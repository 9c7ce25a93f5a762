#include "tools/kvx/ServicesView.h"

namespace kvx::tool {
namespace {

beats::Service service(const std::string& name, long long pid, beats::Milliseconds lastHeard) {
    return {{name, "NET",
             "h\x1b"
             "1",
             pid, false},
            0,
            lastHeard,
            1,
            0};
}

TEST(ServicesView, AlignsColumnsAndMarksWhatIsMissing) {
    const std::vector<beats::Service> all = {service("Class", 7, 29000), service("Model", 4711, 0)};
    const auto lines = serviceLines(all, 30000, Colour::Missing);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "SERVICE  DOMAIN  HOST  PID   ROLE    AGE   MISSED");
    EXPECT_EQ(lines[1], "Class    NET     h 1   7     backup  1 s   0");
    EXPECT_EQ(lines[2], "\033[31mModel    NET     h 1   4711  backup  30 s  2\033[0m");
    EXPECT_EQ(serviceLines(all, 30000, Colour::Never)[2].front(), 'M');
    EXPECT_TRUE(answerLines({}).empty());
    EXPECT_EQ(fittingLines(lines, 4), lines);
    EXPECT_EQ(fittingLines(lines, 3), (std::vector{lines[0], std::string("... and 2 more")}));
}

TEST(ServicesView, TellsOnlyWhatChanged) {
    using Positions = std::vector<std::size_t>;
    ServiceChanges changes;
    std::vector<beats::Service> all = {service("Class", 7, 0), service("Model", 8, 5000)};
    EXPECT_EQ(changes.since(all, 6000), (Positions{0, 1}));
    EXPECT_EQ(changes.since(all, 10000), Positions{});
    EXPECT_EQ(changes.since(all, 12000), Positions{0});  // silent
    EXPECT_EQ(changes.since(all, 14000), Positions{});
    all[0].lastHeard = 15000;
    all[1].beat.hasBeenPrimary = true;
    EXPECT_EQ(changes.since(all, 15500), (Positions{0, 1}));  // back, and another role
    all.erase(all.begin());
    EXPECT_EQ(changes.since(all, 15500), Positions{});
}

}  // namespace
}  // namespace kvx::tool
