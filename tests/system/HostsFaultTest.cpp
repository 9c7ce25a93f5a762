// Hosts whose servers die and whose lines are bad: what was sent meanwhile is heard once, in order,
// or told as lost, and afterwards everybody hears everybody.

#include "tests/support/LinkProxy.h"
#include "tests/system/Hosts.h"

namespace kvx::test {
namespace {

// Whether `host` has connected to its engine `times`.
bool awaitConnections(Host& host, int times) {
    return eventually([&] {
        const std::string log = host.bridge().errors();
        int found = 0;
        for (auto at = log.find("the engine is there"); at != log.npos;
             at = log.find("the engine is there", at + 1)) {
            ++found;
        }
        return found >= times;
    });
}

// The server of NATS dies while a stream runs over it: the sender's, the listener's, or both.
struct Dying {
    bool ofSender;
    bool ofListener;
};
class EngineDies : public testing::TestWithParam<Dying> {};

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
                         testing::Values(Dying{true, true}, Dying{true, false},
                                         Dying{false, true}));

// A line between a bridge and its server of NATS, which is the same for both hosts.

struct BadLine {
    bool ofSender;
    bool ofListener;
};
class Lines : public testing::TestWithParam<BadLine> {
  protected:
    NatsServer nats_;
    LinkProxy toBerlin_{nats_.port()};
    LinkProxy toParis_{nats_.port()};
    Host berlin_{"berlin", toBerlin_.url()};
    Host paris_{"paris", toParis_.url()};
    Stream stream_{berlin_, paris_};

    void each(const std::function<void(LinkProxy&)>& act) {
        if (GetParam().ofSender) act(toBerlin_);
        if (GetParam().ofListener) act(toParis_);
    }
};

TEST_P(Lines, ThatAreCutForAWhileLoseNothingUntold) {
    stream_.send(1'000);
    each([](LinkProxy& line) { line.cut(); });
    stream_.send(1'000);
    each([](LinkProxy& line) { EXPECT_TRUE(eventually([&] { return line.connections() == 0; })); });
    stream_.send(1'000);
    each([](LinkProxy& line) { line.restore(); });
    stream_.expectHeardOrTold();
}

TEST_P(Lines, ThatAreSlowLoseNothing) {
    each([](LinkProxy& line) { line.throttle(20'000); });
    stream_.send(3'000, 1'000);
    stream_.expectHeardOrTold();
    EXPECT_EQ(stream_.told(), 0U);
}

TEST_P(Lines, ThatAreStalledAreForgottenAndThenAsBefore) {
    RawClient ownListener = berlin_.listener({"PROBE"});
    RawClient ownSender = berlin_.session();
    each([](LinkProxy& line) { line.stall(); });
    stream_.send(1'000, 1'000);
    berlin_.awaitGone("paris");
    paris_.awaitGone("berlin");
    EXPECT_TRUE(isHeardSoon(ownSender, ownListener)) << "each side goes on";
    stream_.send(1'000, 1'000);
    each([](LinkProxy& line) { line.restore(); });
    berlin_.awaitInterest({{"paris", 1}});
    paris_.awaitInterest({{"berlin", 1}});
    stream_.expectHeardOrLost();
    RawClient sender = paris_.session();
    EXPECT_TRUE(isHeardSoon(sender, ownListener)) << "and back";
}

INSTANTIATE_TEST_SUITE_P(Hosts, Lines, testing::Values(BadLine{true, false}, BadLine{false, true}));

}  // namespace
}  // namespace kvx::test
