#include "rvd/Interest.h"

#include "rvd/Router.h"
#include "tests/support/FailureOfNew.h"
#include "tests/support/Told.h"

namespace kvx::rvd {
namespace {

// The test's own allocations do not fail.
struct Spared {
    Spared() { test::newsBeforeFailure = -1; }
    ~Spared() { test::newsBeforeFailure = before; }
    const long before = test::newsBeforeFailure;
};

struct Peer final : Receiver {
    void deliver(const PayloadRef& message) override {
        const Spared ours;
        largest = std::max(largest, message->size());
        if (!told.takeMessage(message->bytes())) told.said += " other";
    }
    void dismiss() override { told.said += " dismissed"; }
    void wake() noexcept override { isAwake = true; }
    // What it has been told since the last call.
    std::string heard() { return std::exchange(told.said, ""); }

    test::Told told;
    Router::Session* session = nullptr;
    bool isAwake = false;
    std::size_t largest = 0;
};

class Following : public testing::Test {
  protected:
    Peer& join(std::initializer_list<std::string> subjects, const char* network = "") {
        peers.push_back(std::make_unique<Peer>());
        Peer& peer = *peers.back();
        peer.session = &router.join("", network, peer);
        for (const std::string& subject : subjects) listen(peer, subject);
        return peer;
    }
    void listen(Peer& peer, const std::string& subject) {
        EXPECT_TRUE(router.listen(*peer.session, *Subject::fromText(subject.c_str())));
    }
    void cancel(Peer& peer, const std::string& subject) {
        router.cancel(*peer.session, *Subject::fromText(subject.c_str()));
    }
    // What its connection does at the end of a batch, and in its own turns.
    static std::string tellAll(Peer& peer) {
        peer.isAwake = false;
        Router::tell(*peer.session);
        while (Router::hasMoreToTell(*peer.session)) Router::tellMore(*peer.session);
        return peer.heard();
    }
    // Delivers a message as its sender's connection does; returns to how many.
    std::size_t publish(Peer& from, const char* subject, std::size_t steps = 1'000'000) {
        const auto encoded = *Subject::fromText(subject);
        const PayloadRef message = Payload::copy(asBytes("message"));
        std::size_t reached = 0;
        for (Router::Match match(router, *from.session, encoded); !match.isDone();) {
            for (Receiver* receiver : match.advance(encoded, steps)) {
                receiver->deliver(message);
                ++reached;
            }
        }
        return reached;
    }
    static wire::Bytes asBytes(std::string_view text) {
        return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
    }

    Counters counters;
    Router router{counters};
    std::vector<std::unique_ptr<Peer>> peers;
};

TEST_F(Following, IsToldWhatOthersOfItsSpaceListenToAndEveryFirstAndLastListen) {
    Peer& a = join({"A", "A", "B.*"});
    join({"OTHER"}, "other");
    Peer& follower = join({"_RVD.INTEREST", "_RVD.INTEREST"});
    EXPECT_TRUE(follower.isAwake);
    EXPECT_EQ(tellAll(follower), " snapshot +A +B.* complete");
    EXPECT_EQ(follower.told.daemon.size(), 16U);
    Peer& b = join({"A", "C"});
    EXPECT_TRUE(follower.isAwake);
    EXPECT_EQ(tellAll(follower), " +C");
    cancel(a, "A");
    cancel(a, "A");
    cancel(a, "A");
    EXPECT_FALSE(follower.isAwake);
    cancel(b, "A");
    router.leave(*a.session);
    EXPECT_EQ(tellAll(follower), " -A -B.*");
    cancel(follower, "_RVD.INTEREST");
    listen(b, "D");
    EXPECT_EQ(tellAll(follower), " +D");
    cancel(follower, "_RVD.INTEREST");
    listen(b, "E");
    EXPECT_EQ(tellAll(follower), "");
    EXPECT_EQ(counters[Counter::FollowersOpen], 0U);
}

TEST_F(Following, CountsNoListensOfFollowersAndTakesNoMessageFromOneToAnother) {
    Peer& a = join({"A"});
    Peer& first = join({"_INBOX.f.>"});
    Peer& second = join({"_RVD.INTEREST", "X.*", "A"});
    EXPECT_EQ(tellAll(second), " snapshot +A +_INBOX.f.> complete");
    listen(first, "_RVD.INTEREST");
    EXPECT_EQ(tellAll(second), " -_INBOX.f.>") << "it follows too";
    EXPECT_EQ(tellAll(first), " snapshot +A complete");
    listen(first, "A");
    listen(first, "X.1");
    EXPECT_EQ(tellAll(first) + tellAll(second), "");
    EXPECT_EQ(publish(a, "A"), 3U);
    EXPECT_EQ(publish(a, "X.1"), 2U);
    EXPECT_EQ(publish(a, ">"), 3U);
    EXPECT_EQ(publish(second, "A"), 1U);
    EXPECT_EQ(publish(second, "X.1", 1), 0U);
    EXPECT_EQ(publish(a, "_INBOX.f.1"), 1U);
    cancel(first, "_RVD.INTEREST");
    EXPECT_EQ(publish(second, "A"), 1U) << "as long as it listens to anything";
    for (const char* subject : {"A", "X.1", "_INBOX.f.>"}) cancel(first, subject);
    listen(first, "A");
    EXPECT_EQ(publish(second, "A"), 2U);
    cancel(a, "A");
    EXPECT_EQ(tellAll(second), " other other other") << "no change: the other one counts now";
    for (Peer* peer : {&first, &second, &a}) router.leave(*peer->session);
    while (router.clearUp(100)) {
    }
    EXPECT_EQ(router.spaces(), 0U);
    EXPECT_EQ(counters[Counter::ListensOpen] + counters[Counter::FollowersOpen], 0U);
}

TEST_F(Following, HearsOfAListenBeforeItGetsAMessage) {
    Peer& follower = join({"_RVD.INTEREST", "A", "B.*"});
    tellAll(follower);
    Peer& a = join({"_INBOX.a.>"});
    publish(a, "A");
    listen(a, "C");
    publish(a, "B.1", 1);
    publish(a, "B.1");
    listen(a, "D");
    EXPECT_EQ(tellAll(follower), " +_INBOX.a.> other +C other other +D");
    for (int i = 0; i < 3'000; ++i) listen(a, "E." + std::to_string(i));
    listen(follower, "_RVD.INTEREST");
    router.refresh(*follower.session, 1);
    Router::tellMore(*follower.session);
    listen(a, "F");
    publish(a, "A");
    const std::string said = follower.heard();
    EXPECT_TRUE(said.ends_with(" +F other")) << "within a snapshot";
    tellAll(follower);
    EXPECT_EQ(follower.told.known.size(), 3'004U);
}

TEST_F(Following, DoesNotBeginWithManyListensNorByAWildcard) {
    Peer& many = join({});
    for (unsigned i = 0; i <= Router::kFewListens; ++i) listen(many, "A." + std::to_string(i));
    for (const char* subject : {"_RVD.INTEREST", "_RVD.>", "_RVD.*", "*.INTEREST", ">"}) {
        Peer& peer = subject == std::string_view("_RVD.INTEREST") ? many : join({});
        listen(peer, subject);
        EXPECT_FALSE(peer.session->isTold()) << subject;
    }
    EXPECT_EQ(counters[Counter::FollowersOpen], 0U);
}

TEST_F(Following, CountsThePatternsThatAreInTreesOfTheirOwn) {
    Peer& a = join({});
    Peer& b = join({});
    const auto pattern = [](int i) { return std::to_string(i) + ".*"; };
    for (int i = 0; i < 100; ++i) listen(a, pattern(i));
    for (int i = 100; i-- > 0;) listen(b, pattern(i));
    Peer& follower = join({"_RVD.INTEREST"});
    tellAll(follower);
    EXPECT_EQ(follower.told.known.size(), 100U);
    for (int i = 0; i < 100; ++i) cancel(a, pattern(i));
    EXPECT_EQ(tellAll(follower), "");
    cancel(b, pattern(80));
    cancel(b, pattern(2));
    EXPECT_EQ(tellAll(follower), " -80.* -2.*");
    router.leave(*b.session);
    while (router.clearUp(10)) {
    }
    tellAll(follower);
    EXPECT_TRUE(follower.told.known.empty());
}

TEST_F(Following, ToldInPiecesWhileEverythingChangesKnowsWhatIsTrue) {
    Router small(counters, 2'000);
    Peer a, follower;
    a.session = &small.join("", "", a);
    const auto subject = [](int i) {
        return *Subject::fromText(("A." + std::to_string(i) + (i % 3 == 0 ? ".*" : "")).c_str());
    };
    std::set<std::string> truth;
    const auto change = [&](int i) {
        const auto text = subject(i).view().text();
        if (truth.erase(text) != 0) return small.cancel(*a.session, subject(i));
        EXPECT_TRUE(small.listen(*a.session, subject(i)));
        truth.insert(text);
    };
    for (int i = 0; i < 5'000; ++i) change(i);
    follower.session = &small.join("", "", follower);
    EXPECT_TRUE(small.listen(*follower.session, *Subject::fromText("_RVD.INTEREST")));
    Router::tell(*follower.session);
    for (int i = 0; Router::hasMoreToTell(*follower.session); i += 7) {
        Router::tellMore(*follower.session);
        for (int k = 0; k < 5; ++k) change((i * 31 + k * 977) % 6'000);
    }
    tellAll(follower);
    EXPECT_TRUE(follower.told.isComplete);
    EXPECT_EQ(follower.told.known, truth);
    EXPECT_LT(follower.largest, 2'000U);
    for (Peer* peer : {&a, &follower}) small.leave(*peer->session);
}

TEST_F(Following, IsToldAnewAfterALossOfItsQueue) {
    join({"A"});
    Peer& follower = join({"_RVD.INTEREST"});
    tellAll(follower);
    router.refresh(*follower.session, 0);
    EXPECT_FALSE(Router::hasMoreToTell(*follower.session));
    router.refresh(*follower.session, 3);
    EXPECT_EQ(tellAll(follower), " snapshot +A complete");
    router.refresh(*follower.session, 3);
    EXPECT_EQ(tellAll(follower), "");
    EXPECT_EQ(counters[Counter::InterestSnapshots], 2U);
}

// The search for its patterns takes too long: it gets the message, and stays.
TEST_F(Following, GetsWhatItsPatternsWouldCostTooMuch) {
    Peer& follower = join({"_RVD.INTEREST", "a.a.a.a.a.a.a.a.a.a.a.a.x"});
    for (unsigned i = 0; i < 4096; ++i) {
        std::string pattern;
        for (unsigned bit = 1; bit < 4096; bit *= 2) pattern += (i & bit) != 0 ? "*." : "a.";
        listen(follower, pattern + "z");
    }
    Peer& a = join({});
    EXPECT_EQ(publish(a, "a.a.a.a.a.a.a.a.a.a.a.a.x", 1), 1U);
    EXPECT_EQ(publish(a, "a.a.a.a.a.a.a.a.a.a.a.a.y", 100), 1U);
    EXPECT_EQ(publish(a, "b.a"), 0U);
    EXPECT_EQ(tellAll(follower), " snapshot other other complete");
}

TEST_F(Following, KnowsWhatIsTrueWhereverMemoryFails) {
    bool hasFailed = true;
    for (long news = 0; hasFailed; ++news) {
        Peer& a = join({"A"});
        Peer& follower = join({});
        const auto last = *Subject::fromText("B");
        test::newsBeforeFailure = news;
        const auto attempt = [&](Peer& peer, const char* subject) {
            const auto encoded = [subject] {
                const Spared ours;
                return *Subject::fromText(subject);
            }();
            try {
                EXPECT_TRUE(router.listen(*peer.session, encoded));
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(router.listen(*peer.session, encoded)) << "nothing was changed";
            }
        };
        attempt(follower, "_INBOX.f.>");
        attempt(follower, "_RVD.INTEREST");
        tellAll(follower);
        for (const char* subject : {"B", "B", "C.*"}) attempt(a, subject);
        router.cancel(*a.session, last);
        tellAll(follower);
        hasFailed = test::newsBeforeFailure <= 0;
        test::newsBeforeFailure = -1;
        router.refresh(*follower.session, 0);
        tellAll(follower);
        EXPECT_EQ(follower.told.known, (std::set<std::string>{"A", "B", "C.*"})) << news;
        EXPECT_TRUE(follower.told.isComplete) << news;
        for (Peer* peer : {&a, &follower}) router.leave(*peer->session);
        EXPECT_EQ(router.spaces(), 0U);
    }
}

}  // namespace
}  // namespace kvx::rvd
