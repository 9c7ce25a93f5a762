// Changes on their way: a source file, the service's table, the notify subject, the tool.

#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

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
    EXPECT_EQ(text->output().find("name=a"), std::string::npos) << "it did not change";
    model->kill(SIGTERM);
    EXPECT_EQ(model->wait(), 0) << model->errors();

    const auto again = bus_.startModel(bus_.file("devices.csv", "name,ports\na,1\nb,21\nd,\n"),
                                       {"--watch-source", "1"});
    EXPECT_NE(json->awaitOutput(R"({"name":"b","ports":21}})"), "") << "changed while it was away";
}

TEST_F(SnoopTest, LeavesAfterSoManyRowsAndRefusesWhatIsNoService) {
    const auto snoop = startSnoop({"--count", "1"});
    EXPECT_EQ(snoop->wait(), 0);
    EXPECT_NE(snoop->output().find(" - - m=1\n"), std::string::npos) << snoop->output();
    EXPECT_EQ(bus_.kvx({"snoop", "Mod.ell"}).status, 2);
    EXPECT_NE(bus_.kvx({"snoop", "JubGate"}).errors.find("publishes no changes"),
              std::string::npos);
}

}  // namespace
}  // namespace kvx::test
