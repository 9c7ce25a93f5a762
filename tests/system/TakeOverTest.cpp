// Two members of one group: one answers, the other stands by, and no question is lost between them.

#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

class TakeOverTest : public ::testing::Test {
  protected:
    std::string rows(const std::string& name, int count) {
        std::string csv = "name,ports\n";
        for (int i = 0; i < count; ++i) csv += name + ",48\n";
        return bus_.file(name + ".csv", csv);
    }

    // A member with a database of its own, so that its rows tell who answered.
    std::unique_ptr<ChildProcess> startMember(const std::string& name) {
        return startMember(name, rows(name, 200), "");
    }
    std::unique_ptr<ChildProcess> startMember(const std::string& database, const std::string& csv,
                                              const std::string& key) {
        auto member =
            bus_.start("modeld", {"--db", bus_.path(database + ".db"), "--table", "devices",
                                  "--load", csv, "--key", key, "--watch-source", "1"});
        EXPECT_NE(member->awaitError("standing by on ZEMBRALIX.3.0.MODEL.QUERY"), "");
        return member;
    }

    std::string ask(const std::string& limit = "1") {
        return bus_
            .kvx({"query", "Model", "select name from devices limit " + limit, "--timeout", "30",
                  "--csv"})
            .output;
    }

    Installation bus_;
};

TEST_F(TakeOverTest, QuestionsAskedWhileNobodyIsActiveAreAnsweredLate) {
    const auto first = startMember("first");
    EXPECT_EQ(ask(), "name\nfirst\n") << "asked before the only member is active";
    const auto second = startMember("second");
    EXPECT_EQ(ask(), "name\nfirst\n") << "a standby answered";
    rows("second", 201);
    EXPECT_NE(second->awaitError("brought up to date"), "") << "a standby follows its files";
    rows("first", 202);
    EXPECT_NE(first->awaitError("2 changes published"), "");
    EXPECT_EQ(second->errors().find("published"), std::string::npos) << "by a standby";
    first->kill(SIGKILL);
    EXPECT_EQ(ask(), "name\nsecond\n") << second->errors();
    EXPECT_NE(second->awaitError("questions held meanwhile"), "");
}

TEST_F(TakeOverTest, LongAnswersAreNeverBegunTwice) {
    const auto first = startMember("first");
    ASSERT_NE(first->awaitError("answering"), "");
    const auto second = startMember("second");
    EXPECT_EQ(ask("150").size(), 5U + 150U * 6U);
    first->kill(SIGTERM);
    EXPECT_EQ(first->wait(), 0) << first->errors();
    EXPECT_NE(second->awaitError("answering"), "");
    EXPECT_EQ(ask(), "name\nsecond\n");
    EXPECT_EQ(second->errors().find("held meanwhile"), std::string::npos) << second->errors();
}

TEST_F(TakeOverTest, AFollowerIsGivenEveryRowAndChangeOnce) {
    const std::string csv = bus_.file("devices.csv", "name,ports\na,1\nb,2\n");
    const auto first = startMember("first", csv, "Name");
    const auto second = startMember("second", csv, "Name");
    const auto follow = bus_.start("kvx", {"follow", "Model", "select * from Devices"});
    EXPECT_NE(follow->awaitOutput(" - - name=b ports=2"), "") << follow->errors();
    bus_.file("devices.csv", "name,ports\na,1\nb,20\n");
    EXPECT_NE(follow->awaitOutput(" changed devices name=b ports=20"), "") << first->errors();
    first->kill(SIGKILL);
    bus_.file("devices.csv", "name,ports\na,1\nb,21\n");
    EXPECT_NE(second->awaitError("changes published"), "");
    bus_.file("devices.csv", "name,ports\nb,21\nc,3\n");
    EXPECT_NE(follow->awaitOutput(" inserted devices name=c ports=3"), "") << second->errors();
    const std::string shown = follow->output();
    EXPECT_NE(shown.find(" changed devices name=b ports=21\n"), std::string::npos);
    EXPECT_NE(shown.find(" deleted devices name=a ports=1\n"), std::string::npos);
    EXPECT_EQ(std::ranges::count(shown, '\n'), 6) << shown;
}

}  // namespace
}  // namespace kvx::test
