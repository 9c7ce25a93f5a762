// The tool against the daemon, as a person at a shell would use it.

#include "tests/support/Home.h"
#include "tests/system/Installation.h"

namespace kvx::test {
namespace {

class ToolTest : public ::testing::Test {
  protected:
    Installation bus_;
};

TEST_F(ToolTest, ListensToWhatIsSent) {
    const auto listener = bus_.start("kvx", {"listen", "NEWS.>", "--count", "2"});
    const auto json = bus_.start("kvx", {"listen", "NEWS.*", "--json", "--count", "2"});
    // Sent until both hear: nobody can tell from outside when a listen has reached the daemon.
    ASSERT_TRUE(eventually([&] {
        EXPECT_EQ(
            bus_.kvx({"send", "NEWS.SPORT", "--reply", "DESK", "score:i32=3", "by=KVX"}).status, 0);
        return !listener->isRunning() && !json->isRunning();
    }));
    EXPECT_EQ(listener->wait(), 0);
    EXPECT_EQ(json->wait(), 0);
    const std::string line = "NEWS.SPORT DESK { score=3 by=\"KVX\"}\n";
    EXPECT_EQ(listener->output(), line + line);
    EXPECT_EQ(
        json->output().substr(0, json->output().find('\n')),
        R"({"subject":"NEWS.SPORT","reply":"DESK","type":"message","fields":[)"
        R"({"name":"score","type":"i32","value":3},{"name":"by","type":"string","value":"KVX"}]})");
}

TEST_F(ToolTest, TakesOptionsOverTheConfigurationFile) {
    Installation other;
    const auto listener = bus_.start(
        "kvx", {"listen", "X", "--daemon", other.daemonText(), "--service", "9", "--count", "1"});
    ASSERT_TRUE(eventually([&] {
        bus_.kvx({"send", "X", "from=here", "--service", "9"});
        other.kvx({"send", "X", "from=default-service"});
        other.kvx({"send", "X", "from=there", "--service", "9"});
        return !listener->isRunning();
    }));
    EXPECT_EQ(listener->output(), "X - { from=\"there\"}\n");
}

TEST_F(ToolTest, ReachesADaemonAtAUnixSocketAndSaysWhenItIsNotAllowed) {
    bus_.file("etc/Calvorine.rvd.cfg",
              "rendezvous session = { \"daemon\" = \"" + bus_.unixText() + "\" };\n");
    const Daemon other({"-allow", "10.0.0.0/8"});
    const Ended bench = bus_.kvx({"bench", "--messages", "100", "--requests", "10"});
    EXPECT_EQ(bench.status, 0) << bench.errors;
    const Ended refused = bus_.kvx({"send", "X", "a=b", "--daemon", other.text()});
    EXPECT_EQ(refused.status, 1);
    EXPECT_TRUE(
        holds(refused.errors, "kvx: no session with the bus daemon at " + other.text() +
                                  ": the daemon does not allow this user or this network address"));
}

TEST_F(ToolTest, ShowsWhoBeatsAndWhoAnswers) {
    const auto watch = bus_.start("kvx", {"services", "--watch", "--json"});
    const auto table = bus_.start("kvx", {"services", "--watch"});
    const auto model = bus_.startModel(bus_.file("devices.csv", "name\ncore1\n"));
    const std::string pid = std::to_string(model->pid());
    EXPECT_TRUE(holds(watch->awaitOutput(R"("service":"Model","domain":"DEFAULT")"), pid));
    EXPECT_TRUE(holds(table->awaitOutput("Model "), pid));
    for (const auto& child : {watch.get(), table.get()}) {
        child->kill(SIGINT);
        EXPECT_EQ(child->wait(), 0);
    }
    EXPECT_EQ(table->output().rfind("SERVICE ", 0), 0U) << table->output();
    EXPECT_TRUE(eventually([&] {
        const Ended once = bus_.kvx({"services", "--wait", "0.5", "--json"});
        return once.output.find(R"({"service":"Model","subject":)") != std::string::npos;
    }));
    EXPECT_EQ(bus_.kvx({"services", "--wait", "1", "--watch"}).status, 2);
    const auto twin = bus_.startModel(bus_.file("devices.csv", "name\ncore1\n"));
    const Ended both = bus_.kvx({"services", "--wait", "0.5", "--json"});
    const std::string warning = "kvx: warning: two answer on ZEMBRALIX.3.0.MODEL.QUERY: ";
    EXPECT_TRUE(holds(both.errors, warning));
    EXPECT_TRUE(holds(both.output, R"("answerers":[")"));
    EXPECT_EQ(both.status, 0);
    const Ended doctor = bus_.kvx({"doctor", "--wait", "0.5", "--timeout", "1"});
    EXPECT_TRUE(holds(doctor.output, "2 answer on ZEMBRALIX.3.0.MODEL.QUERY"));
}

}  // namespace
}  // namespace kvx::test
