// A query through the whole system: tool, daemon, service, store and back.

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
    EXPECT_NE(table.output.find("2 rows in 1 packet"), std::string::npos) << table.output;
    EXPECT_EQ(query(text, {"--json"}).output,
              "{\"name\":\"edge-1\",\"ports\":24,\"site\":\"south\"}\n"
              "{\"name\":\"edge-2\",\"ports\":24,\"site\":null}\n");
    const Ended none = query("select * from devices where name = 'x'");
    EXPECT_EQ(none.status, 0);
    EXPECT_NE(none.output.find("Query has zero matches"), std::string::npos) << none.output;
    const Ended refused = query("select colour from devices");
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.output, "");
    EXPECT_NE(refused.errors.find("no column 'colour' in 'devices' at position 8"),
              std::string::npos);
}

TEST_F(QueryTest, OfAWholeTableComesInCompressedPackets) {
    const auto model = bus_.startModel(bus_.file("devices.csv", manyDevices(5050)));
    const Ended all = query("select * from devices", {"--quiet"});
    EXPECT_EQ(all.status, 0) << all.errors;
    EXPECT_NE(all.output.find("5050 rows in 51 packets"), std::string::npos) << all.output;
    EXPECT_NE(all.output.find("sent as"), std::string::npos) << all.output;

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
    EXPECT_NE(asking->output().find("20000 rows in 200 packets"), std::string::npos);
    EXPECT_EQ(model->wait(), 0);
}

TEST_F(QueryTest, ReachesOnlyTheServiceOfItsDomainAndEndsInTime) {
    const auto model = bus_.startModel(bus_.file("devices.csv", kDevices), {"--domain", "NET1"});
    EXPECT_EQ(query("select * from devices", {"--domain", "NET1"}).status, 0);
    const Ended silence = query("select * from devices", {"--timeout", "0.2"});
    EXPECT_EQ(silence.status, 1);
    EXPECT_NE(silence.errors.find("no answer from Model within 0.2 s"), std::string::npos);
    const Ended nobody = bus_.kvx({"query", "Modell", "*", "--timeout", "0.2"});
    EXPECT_EQ(nobody.status, 1);
    EXPECT_NE(nobody.errors.find("no service is named 'Modell'"), std::string::npos);
    EXPECT_TRUE(eventually([&] {
        const Ended services = bus_.kvx({"services", "--domain", "NET1", "--wait", "0.5"});
        return services.output.find(" ms  ZEMBRALIX.3.0.MODEL.QUERY\n") != std::string::npos;
    }));
}

}  // namespace
}  // namespace kvx::test
