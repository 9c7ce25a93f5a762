// A model service through the whole system: tool, daemon, service, store and back.

#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

constexpr const char* kDevices = "name,ports,site\ncore-1,48,north\nedge-1,24,south\nedge-2,24,\n";

std::string manyDevices(int count) {
    std::string csv = "name,ports,site\n";
    for (int i = 0; i < count; ++i) {
        csv += "device-" + std::to_string(i) + "," + std::to_string(i % 48) + ",somewhere\n";
    }
    return csv;
}

class QueryTest : public ::testing::Test {
  protected:
    Ended query(const std::string& text, std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"query", "Model", text});
        return bus_.kvx(more);
    }

    Installation bus_;
};

TEST_F(QueryTest, IsAnsweredOrRefusedWithTheReason) {
    const auto model = bus_.startModel(bus_.file("devices.csv", kDevices));
    const std::string text = "select name, ports, site from devices where ports = 24 order by name";
    const Ended table = query(text);
    EXPECT_EQ(table.status, 0) << table.errors;
    EXPECT_EQ(table.output.substr(0, table.output.find("2 rows")),
              "name    ports  site\n------  -----  -----\nedge-1  24     south\nedge-2  24     \n");
    EXPECT_TRUE(holds(table.output, "2 rows in 1 packet"));
    EXPECT_EQ(query(text, {"--json"}).output,
              "{\"name\":\"edge-1\",\"ports\":24,\"site\":\"south\"}\n"
              "{\"name\":\"edge-2\",\"ports\":24,\"site\":null}\n");
    const Ended none = query("select * from devices where name = 'x'");
    EXPECT_EQ(none.status, 0);
    EXPECT_TRUE(holds(none.output, "Query has zero matches"));
    const Ended refused = query("select colour from devices");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "");
    EXPECT_TRUE(holds(refused.errors, "no column 'colour' in 'devices' at position 8"));
}

TEST_F(QueryTest, OfAWholeTableComesInCompressedPackets) {
    const auto model = bus_.startModel(bus_.file("devices.csv", manyDevices(5050)));
    const Ended all = query("select * from devices", {"--quiet"});
    EXPECT_EQ(all.status, 0) << all.errors;
    EXPECT_TRUE(holds(all.output, "5050 rows in 51 packets"));
    EXPECT_TRUE(holds(all.output, "sent as"));

    const Ended rows = query("select name from devices where ports = 7", {"--csv"});
    EXPECT_EQ(std::count(rows.output.begin(), rows.output.end(), '\n'), 1 + 106);
}

TEST_F(QueryTest, IsAnsweredWholeByAServiceThatIsStopped) {
    const auto model =
        bus_.startModel(bus_.file("devices.csv", manyDevices(20000)), {"-v", "--send-rate", "100"});
    const auto asking = bus_.start("kvx", {"query", "Model", "select * from devices", "--quiet"});
    EXPECT_NE(model->awaitError(" ms: select"), "") << model->errors();
    model->kill(SIGTERM);
    EXPECT_EQ(asking->wait(), 0) << asking->errors();
    EXPECT_TRUE(holds(asking->output(), "20000 rows in 200 packets"));
    EXPECT_EQ(model->wait(), 0);
}

TEST_F(QueryTest, ReachesOnlyTheServiceOfItsDomainAndEndsInTime) {
    const auto model = bus_.startModel(bus_.file("devices.csv", kDevices), {"--domain", "NET1"});
    EXPECT_EQ(query("select * from devices", {"--domain", "NET1"}).status, 0);
    const Ended silence = query("select * from devices", {"--timeout", "0.2"});
    EXPECT_EQ(silence.status, 1);
    EXPECT_TRUE(holds(silence.errors, "no answer from Model within 0.2 s"));
    const Ended nobody = bus_.kvx({"query", "Modell", "*", "--timeout", "0.2"});
    EXPECT_EQ(nobody.status, 1);
    EXPECT_TRUE(holds(nobody.errors, "no service is named 'Modell'"));
    EXPECT_TRUE(eventually([&] {
        const Ended services = bus_.kvx({"services", "--domain", "NET1", "--wait", "0.5"});
        return services.output.find(" ms  ZEMBRALIX.3.0.MODEL.QUERY\n") != std::string::npos;
    }));
}

// Changes on their way: a source file, the service's table, the notify subject, the tool.

constexpr const char* kSubject = "ZEMBRALIX.3.0.MODEL.NOTIFY.DEFAULT";
// A packet with one record, whose field "m" is "1".
constexpr const char* kMarker =
    "a:hex=000000000000000100000000000000010001000000000000000000069192a16da131";

class SnoopTest : public ::testing::Test {
  protected:
    // A snoop that hears: nobody can tell from outside when a listen has reached the daemon.
    std::unique_ptr<ChildProcess> startSnoop(std::vector<std::string> more = {}) {
        more.insert(more.begin(), {"snoop", "Model"});
        auto snoop = bus_.start("kvx", more);
        EXPECT_TRUE(eventually([&] {
            bus_.kvx({"send", kSubject, kMarker});
            return !snoop->output().empty();
        })) << snoop->errors();
        return snoop;
    }

    Installation bus_;
};

TEST_F(SnoopTest, ShowsTheRowsThatASourceChanges) {
    const auto text = startSnoop();
    const auto json = startSnoop({"--json"});
    const auto model =
        bus_.startModel(bus_.file("devices.csv", "name,ports\na,1\nb,2\nc,3\n"),
                        {"--watch-source", "1", "--checkpoint", "1", "--statistics", "1"});
    bus_.file("devices.csv", "name,ports\na,1\nb,20\nd,\n");
    EXPECT_NE(text->awaitOutput(" deleted devices name=c ports=3"), "") << model->errors();
    EXPECT_NE(text->awaitOutput(" changed devices name=b ports=20"), "");
    EXPECT_NE(text->awaitOutput(" inserted devices name=d"), "");
    EXPECT_NE(json->awaitOutput(R"("change":"changed","table":"devices","row":{"name":"b",)"
                                R"("ports":20}})"),
              "");
    EXPECT_EQ(
        bus_.kvx({"query", "Model", "select ports from devices where name = 'b'", "--csv"}).output,
        "ports\n20\n");

    bus_.file("devices.csv", "name,ports\na\n");
    EXPECT_NE(model->awaitError("line 2 has 1 fields where 2 are expected"), "");
    text->kill(SIGINT);
    EXPECT_EQ(text->wait(), 0);
    EXPECT_FALSE(holds(text->output(), "name=a")) << "it did not change";
    model->kill(SIGTERM);
    EXPECT_EQ(model->wait(), 0) << model->errors();

    const auto again = bus_.startModel(bus_.file("devices.csv", "name,ports\na,1\nb,21\nd,\n"),
                                       {"--watch-source", "1"});
    EXPECT_NE(json->awaitOutput(R"({"name":"b","ports":21}})"), "") << "changed while it was away";
}

TEST_F(SnoopTest, LeavesAfterSoManyRowsAndRefusesWhatIsNoService) {
    const auto snoop = startSnoop({"--count", "1"});
    EXPECT_EQ(snoop->wait(), 0);
    EXPECT_TRUE(holds(snoop->output(), " - - m=1\n"));
    EXPECT_EQ(bus_.kvx({"snoop", "Mod.ell"}).status, 2);
    EXPECT_TRUE(holds(bus_.kvx({"snoop", "JubGate"}).errors, "publishes no changes"));
}

// Two members of one group: one answers, the other stands by, and no question is lost between them.

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
    EXPECT_FALSE(holds(second->errors(), "published")) << "by a standby";
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
    EXPECT_FALSE(holds(second->errors(), "held meanwhile"));
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
    EXPECT_TRUE(holds(shown, " changed devices name=b ports=21\n"));
    EXPECT_TRUE(holds(shown, " deleted devices name=a ports=1\n"));
    EXPECT_EQ(std::ranges::count(shown, '\n'), 6) << shown;
}

}  // namespace
}  // namespace kvx::test
