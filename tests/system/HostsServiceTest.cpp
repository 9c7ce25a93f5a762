// What people at a shell see of services on other hosts.

#include "tests/system/Hosts.h"

namespace kvx::test {
namespace {

using Child = std::unique_ptr<ChildProcess>;

std::string devices(int count) {
    std::string csv = "name,ports\n";
    for (int i = 0; i < count; ++i) csv += "device-" + std::to_string(i) + ",48\n";
    return csv;
}

using Services = TwoHosts;

TEST_F(Services, AnswerInManyPacketsAndAreSnoopedFromAnotherHost) {
    berlin_.session();
    Installation& bus = berlin_.bus();
    const Child model =
        bus.startModel(bus.file("devices.csv", devices(5'050)), {"--watch-source", "1"});
    paris_.session();
    const Child snoop = paris_.bus().start("kvx", {"snoop", "Model"});
    Host::awaitInterestOfBoth(berlin_, paris_);
    const Ended all = paris_.bus().kvx({"query", "Model", "select * from devices", "--quiet"});
    EXPECT_EQ(all.status, 0) << all.errors;
    EXPECT_TRUE(holds(all.output, "5050 rows in 51 packets"));
    bus.file("devices.csv", devices(5'051));
    EXPECT_NE(snoop->awaitOutput(" inserted devices name=device-5050 ports=48"), "");
    EXPECT_EQ(berlin_.about("paris")["lost"], Json::object());
}

TEST_F(Services, OfOneGroupBeatEverywhereAndOneAnswers) {
    const Child inBerlin = berlin_.startMember();
    EXPECT_NE(inBerlin->awaitError("answering on"), "");
    const Child inParis = paris_.startMember();
    Host::awaitInterestOfBoth(berlin_, paris_);
    // Each beats every 10 s.
    const Child services = paris_.bus().start("kvx", {"services", "--wait", "11", "--json"});
    EXPECT_EQ(berlin_.ask() + paris_.ask(), "berlin\nberlin\n");
    EXPECT_EQ(services->wait(), 0);
    for (const pid_t member : {inBerlin->pid(), inParis->pid()}) {
        EXPECT_TRUE(holds(services->output(), std::to_string(member)));
    }
    EXPECT_EQ(services->errors(), "") << "only one answers";
    inBerlin->kill(SIGKILL);
    berlin_.bridge().kill(SIGKILL);
    berlin_.daemon().kill();
    EXPECT_EQ(paris_.ask(), "paris\n") << inParis->errors();
}

TEST_F(Services, AreFollowedFromAnotherHostWithoutAGapWhateverWasLostBetween) {
    berlin_.session();
    paris_.session();
    Installation& bus = berlin_.bus();
    const Child model =
        bus.startModel(bus.file("devices.csv", "name,ports\na,1\nb,2\n"), {"--watch-source", "1"});
    const Child follow = paris_.bus().start("kvx", {"follow", "Model", "select * from devices"});
    EXPECT_NE(follow->awaitOutput(" - - name=b ports=2"), "") << follow->errors();
    bus.file("devices.csv", "name,ports\na,1\nb,20\n");
    EXPECT_NE(follow->awaitOutput(" changed devices name=b ports=20"), "") << follow->errors();
    nats_.kill();
    bus.file("devices.csv", "name,ports\na,10\nb,21\n");
    EXPECT_NE(model->awaitError("2 changes published"), "") << model->errors();
    nats_.restart();
    bus.file("devices.csv", "name,ports\nb,21\n");
    EXPECT_NE(follow->awaitOutput(" deleted devices name=a ports=10"), "") << follow->errors();
    EXPECT_TRUE(holds(follow->output(), " changed devices name=b ports=21\n"));
    EXPECT_EQ(std::ranges::count(follow->output(), '\n'), 6) << follow->output();
}

}  // namespace
}  // namespace kvx::test
