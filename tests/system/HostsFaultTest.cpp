// Hosts whose servers die and whose lines are bad: what was sent meanwhile is heard once, in order,
// or told as lost, and afterwards everybody hears everybody.

#include "tests/support/EnvironmentVariable.h"
#include "tests/support/Proxy.h"
#include "tests/support/Sanitizer.h"
#include "tests/system/Hosts.h"

namespace kvx::test {
namespace {

// Whether `host` has connected to its engine `times`.
bool awaitConnections(Host& host, int times) {
    return eventually(
        [&] { return countOf(host.bridge().errors(), "the engine is there") >= times; });
}

// A line to a port of the loopback.
class Line {
  public:
    explicit Line(const std::string& target)
        : proxy_(static_cast<std::uint16_t>(std::stoi(target)), 1) {}
    [[nodiscard]] std::string port() const { return std::to_string(proxy_.port(0)); }
    [[nodiscard]] std::string url() const { return "nats://127.0.0.1:" + port(); }

    /// Connections stay open and nothing is read from them.
    void stall() { limit({.piece = 0}); }
    /// So many bytes pass each way in about 10 ms.
    void throttle(std::size_t bytes) { limit({.piece = 2 * bytes, .pause = 10ms}); }
    void cut() { proxy_.cut(0); }
    void awaitNoConnection() {
        EXPECT_TRUE(eventually([&] { return proxy_.connections(0) == 0; }));
    }
    void awaitConnection() {
        EXPECT_TRUE(eventually([&] { return proxy_.connections(0) > 0; }));
    }
    void restore() { proxy_.heal(); }

  private:
    void limit(const Proxy::Limit& limit) {
        for (const auto way : {Proxy::Way::Up, Proxy::Way::Down}) proxy_.limit(0, way, limit);
    }

    Proxy proxy_;
};

// Whose server or line it is.
struct Whose {
    bool ofSender;
    bool ofListener;
};

// The server of NATS dies while a stream runs over it.
class EngineDies : public testing::TestWithParam<Whose> {};

TEST_P(EngineDies, EachMessageIsHeardOnceInOrderOrToldAsLost) {
    NatsServer first;
    NatsServer second(&first);
    const auto engines = [&](bool dies) {
        return dies ? first.url() + ',' + second.url() : second.url() + ',' + first.url();
    };
    Host berlin("berlin", engines(GetParam().ofSender));
    Host paris("paris", engines(GetParam().ofListener));
    Stream stream(berlin, paris);
    stream.send(1'000);
    first.kill();
    stream.send(1'000);
    first.restart();
    stream.send(1'000);
    ASSERT_TRUE(awaitConnections(berlin, GetParam().ofSender ? 2 : 1));
    ASSERT_TRUE(awaitConnections(paris, GetParam().ofListener ? 2 : 1));
    stream.send(1'000);
    stream.expectHeardOrTold();
}

INSTANTIATE_TEST_SUITE_P(Hosts, EngineDies,
                         testing::Values(Whose{true, true}, Whose{true, false},
                                         Whose{false, true}));

// A line between a bridge and its server of NATS, which is the same for both hosts.
class Lines : public testing::TestWithParam<Whose> {
  protected:
    NatsServer nats_;
    Line toBerlin_{nats_.port()};
    Line toParis_{nats_.port()};
    Host berlin_{"berlin", toBerlin_.url()};
    Host paris_{"paris", toParis_.url()};
    Stream stream_{berlin_, paris_};

    void each(const std::function<void(Line&)>& act) {
        if (GetParam().ofSender) act(toBerlin_);
        if (GetParam().ofListener) act(toParis_);
    }
};

TEST_P(Lines, ThatAreCutForAWhileLoseNothingUntold) {
    stream_.send(1'000);
    each(&Line::cut);
    stream_.send(1'000);
    each(&Line::awaitNoConnection);
    stream_.send(1'000);
    each(&Line::restore);
    stream_.expectHeardOrTold();
}

TEST_P(Lines, ThatAreCutForAWhileHoldWhatABridgeHasRoomFor) {
    if (kIsWatched) GTEST_SKIP() << "the hosts forget one another before the queue is full";
    each(&Line::cut);
    for (int i = 0; i < 4; ++i) {
        stream_.send(18, 1'000'000);
        stream_.awaitTaken();
    }
    each(&Line::restore);
    stream_.expectHeardOrTold();
    const char* const cause = GetParam().ofSender ? "queue full" : "engine gone";
    EXPECT_GT(paris_.about("berlin")["lost"].value(cause, 0), 0);
}

TEST_P(Lines, ThatAreSlowLoseNothing) {
    each([](Line& line) { line.throttle(20'000); });
    stream_.send(3'000, 1'000);
    stream_.expectHeardOrTold();
    EXPECT_EQ(stream_.told(), 0U);
}

TEST_P(Lines, ThatAreStalledAreForgottenAndThenAsBefore) {
    RawClient ownListener = berlin_.listener({"PROBE"});
    RawClient ownSender = berlin_.session();
    each(&Line::stall);
    stream_.send(1'000, 1'000);
    berlin_.awaitGone("paris");
    paris_.awaitGone("berlin");
    EXPECT_TRUE(isHeardSoon(ownSender, ownListener)) << "each side goes on";
    stream_.send(1'000, 1'000);
    each(&Line::restore);
    Host::awaitInterestOfBoth(berlin_, paris_);
    stream_.expectHeardOrLost();
    RawClient sender = paris_.session();
    EXPECT_TRUE(isHeardSoon(sender, ownListener)) << "and back";
}

TEST_P(Lines, ThatAreCutTakeListensThatChangeMeanwhile) {
    RawClient listener = paris_.listener({"OLD"});
    each(&Line::cut);
    each(&Line::awaitNoConnection);
    for (const char* subject : {"PASSING", "PROBE"}) listener.listen(subject);
    for (const char* subject : {"OLD", "PASSING"}) listener.cancel(subject);
    each(&Line::restore);
    RawClient sender = berlin_.session();
    EXPECT_TRUE(isHeardSoon(sender, listener));
    berlin_.awaitInterestOf(paris_);
}

INSTANTIATE_TEST_SUITE_P(Hosts, Lines, testing::Values(Whose{true, false}, Whose{false, true}));

// The line between two servers of NATS, each of them with a host.
class Route : public testing::Test {
  protected:
    NatsServer first_;
    Line line_{first_.clusterPort()};
    NatsServer second_{line_.port()};
    Host berlin_{"berlin", first_.url()};
    Host paris_{"paris", second_.url()};

    void expectBothForget() {
        berlin_.awaitGone("paris");
        paris_.awaitGone("berlin");
    }
};

TEST_F(Route, ThatIsCutInOrAtTheEndOfAStreamLosesNothingUntold) {
    Stream stream(berlin_, paris_);
    Stream back(paris_, berlin_);
    for (const bool goesOn : {true, false}) {
        stream.send(1'000);
        line_.cut();
        for (Stream* each : {&stream, &back}) each->send(1'000);
        line_.awaitNoConnection();
        for (Stream* each : {&stream, &back}) each->send(1'000);
        line_.restore();
        line_.awaitConnection();
        for (Stream* each : {&stream, &back}) {
            const std::uint64_t before = each->told();
            if (goesOn) each->send(1'000);
            each->expectHeardOrTold();
            EXPECT_GT(each->told(), before);
        }
    }
}

TEST_F(Route, ThatIsSlowLosesNothing) {
    Stream stream(berlin_, paris_);
    line_.throttle(20'000);
    stream.send(3'000, 1'000);
    stream.expectHeardOrTold();
    EXPECT_EQ(stream.told(), 0U);
}

TEST_F(Route, ThatIsStalledIsAsBeforeWhenItFlows) {
    Stream stream(berlin_, paris_);
    line_.stall();
    stream.send(1'000, 1'000);
    expectBothForget();
    stream.send(1'000, 1'000);
    line_.restore();
    Host::awaitInterestOfBoth(berlin_, paris_);
    stream.expectHeardOrLost();
}

using Daemons = TwoHosts;

TEST_F(Daemons, TellWhatTheyHaveDroppedOnItsWayToABridge) {
    Stream stream(berlin_, paris_);
    berlin_.bridge().kill(SIGSTOP);
    stream.send(100, 1'000'000);
    berlin_.bridge().kill(SIGCONT);
    stream.expectHeardOrTold();
    EXPECT_GT(stream.told(), 0U);
}

TEST(Servers, ThatAllDieLoseNothingUntold) {
    NatsServer first;
    NatsServer second(&first);
    Host berlin("berlin", first.url() + ',' + second.url());
    Host paris("paris", second.url() + ',' + first.url());
    Stream stream(berlin, paris);
    Stream back(paris, berlin);
    stream.send(1'000);
    for (NatsServer* server : {&first, &second}) server->kill();
    for (Stream* each : {&stream, &back}) each->send(1'000);
    for (NatsServer* server : {&first, &second}) server->restart();
    for (Host* host : {&berlin, &paris}) EXPECT_TRUE(awaitConnections(*host, 2));
    for (Stream* each : {&stream, &back}) each->expectHeardOrTold();
}

// Something that accepts connections, says one thing and is silent from then on.
class Silent {
  public:
    explicit Silent(std::string greeting) : greeting_(std::move(greeting)) {}

    [[nodiscard]] std::string at(const std::string& scheme) const {
        const auto port = platform::localEndpoint(listener_.get())->port;
        return scheme + "127.0.0.1:" + std::to_string(port);
    }
    /// Waits for a connection, and for an answer to the greeting.
    void awaitConnection() {
        connection_ = platform::acceptTcp(listener_.get(), error_);
        (void)platform::sendSome(connection_.get(), std::as_bytes(std::span(greeting_)));
        if (greeting_.empty()) return;
        EXPECT_NE(platform::waitSocket(connection_.get(), platform::kReadable, 10'000).ready, 0);
    }

  private:
    int error_ = 0;
    const std::string greeting_;
    platform::Socket listener_ = platform::listenTcp({platform::kLoopbackAddress, 0}, error_);
    platform::Socket connection_;
};

TEST(Silence, DoesNotKeepABridgeFromItsEnd) {
    const std::string info = R"("server_id":"x","version":"2.9.10","proto":1,"max_payload":65536)";
    Silent speechless("");
    Silent plain("INFO {" + info + "}\r\n");
    Silent secure("INFO {" + info + R"(,"tls_required":true})" + "\r\n");
    const Texts before = {"-host", "berlin", "-daemon", "tcp:127.0.0.1:1", "-engine"};
    std::list<ChildProcess> bridges;
    for (Silent* server : {&speechless, &plain, &secure}) {
        Texts options = before;
        options.push_back(server->at("nats://"));
        bridges.emplace_back(kBridge, options);
        server->awaitConnection();
    }
    Silent daemon("");
    Texts options = {"-host",           "berlin",  "-daemon",
                     daemon.at("tcp:"), "-engine", plain.at("nats://")};
    for (int space = 1; space <= 16; ++space) {
        for (const std::string& text :
             {std::string("-space"), std::to_string(7'000 + space) + ':'}) {
            options.push_back(text);
        }
    }
    bridges.emplace_back(kBridge, options);
    daemon.awaitConnection();
    for (ChildProcess& bridge : bridges) bridge.kill(SIGTERM);
    for (ChildProcess& bridge : bridges) {
        EXPECT_TRUE(eventually([&] { return !bridge.isRunning(); }, 20s)) << bridge.errors();
        EXPECT_EQ(bridge.wait(), 0) << bridge.errors();
    }
}

TEST(Clocks, ThatAreAnHourApartChangeNothing) {
    if (kIsWatched) GTEST_SKIP() << "the sanitizer must be loaded before the library";
    NatsServer nats;
    std::optional<Host> paris;
    {
        const EnvironmentVariable library("LD_PRELOAD", "/usr/$LIB/faketime/libfaketime.so.1");
        const EnvironmentVariable ahead("FAKETIME", "+1h");
        paris.emplace("paris", nats.url());
    }
    Host berlin("berlin", nats.url());
    Stream stream(berlin, *paris);
    Stream back(*paris, berlin);
    nats.restart();
    for (Stream* each : {&stream, &back}) each->send(1'000);
    for (Stream* each : {&stream, &back}) each->expectHeardOrTold();
    EXPECT_TRUE(eventually([&] { return berlin.about("paris")["rtt_us"].is_number(); }));
    EXPECT_LT(berlin.about("paris")["rtt_us"], 10'000'000);
    const auto hourOf = [](const Json& host) {
        return std::stoi(host["since"].get<std::string>().substr(11));
    };
    EXPECT_NE(hourOf(berlin.about("paris")), hourOf(berlin.about("berlin"))) << "it is ahead";
}

TEST_F(Route, ThatIsCutLeavesAGroupOneActiveMemberASide) {
    const auto inBerlin = berlin_.startMember();
    EXPECT_NE(inBerlin->awaitError("answering on"), "");
    const auto inParis = paris_.startMember();
    EXPECT_EQ(berlin_.ask() + paris_.ask(), "berlin\nberlin\n");
    line_.cut();
    EXPECT_NE(inParis->awaitError("answering on"), "");
    expectBothForget();
    EXPECT_EQ(berlin_.ask() + paris_.ask(), "berlin\nparis\n");
    line_.restore();
    EXPECT_TRUE(eventually([&] {
        const std::string log = inParis->errors();
        return log.rfind("standing by on") > log.rfind("answering on");
    }));
    Host::awaitInterestOfBoth(berlin_, paris_);
    EXPECT_EQ(berlin_.ask() + paris_.ask(), "berlin\nberlin\n");
}

}  // namespace
}  // namespace kvx::test
