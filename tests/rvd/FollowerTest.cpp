// Sessions that follow interest, at a real daemon.

#include "tests/support/Daemon.h"
#include "tests/support/RawClient.h"
#include "tests/support/Told.h"

namespace kvx::test {
namespace {

class Follower {
  public:
    explicit Follower(std::uint16_t port, int receiveBuffer = 0)
        : client(RawClient::nameless(port, receiveBuffer)) {
        client.listen("_RVD.INTEREST");
    }
    /// Reads until `said` ends with that; all it was told since the last call, with the texts of
    /// other messages in between.
    std::string hear(const std::string& end) {
        return hearUntil([&] { return told.said.ends_with(end); });
    }
    std::string hearUntil(const std::function<bool()>& isEnough) {
        while (!isEnough()) {
            const Received next = client.expectNext();
            if (!told.takeMessage(next.bytes)) told.said += ' ' + next.subject + '=' + next.text;
        }
        return std::exchange(told.said, "");
    }
    void reportLoss(const std::string& subject, std::uint64_t lost) {
        RvMsg report;
        const ByteVector encoded = encodedSubject(subject);
        report.append("sub", RVMSG_SUBJECT, static_cast<rvmsg_Size>(encoded.size()),
                      encoded.data());
        report.append("lost", RVMSG_UINT, sizeof lost, &lost);
        report.append("cause", "engine gone");
        client.send(wire::buildData(encodedSubject("_RVD.LOST"), nullptr, 0,
                                    {RVMSG_MSG, 0, report.data()}));
    }

    RawClient client;
    Told told;
};

std::string textOf(const std::optional<Loss>& loss) {
    if (!loss) return "no loss";
    return std::to_string(loss->messages) + ", " + std::to_string(loss->bytes) + ", " + loss->cause;
}

class Following : public testing::Test {
  protected:
    RawClient session() { return RawClient::session(daemon.port()); }
    Daemon daemon;
};

TEST_F(Following, IsToldASnapshotAndThenEachChangeAheadOfWhatItsSessionSends) {
    RawClient early = session();
    early.listen("A.*");
    early.settle();
    Follower follower(daemon.port());
    EXPECT_EQ(follower.hear(" complete"), " snapshot +A.* complete");
    follower.client.listen("Q");
    {
        RawClient late = session();
        for (int i = 0; i < 3; ++i) {
            late.listen("_INBOX.late." + std::to_string(i));
            late.publish("Q", std::to_string(i));
        }
        EXPECT_EQ(follower.hear(" Q=2"),
                  " +_INBOX.late.0 Q=0 +_INBOX.late.1 Q=1 +_INBOX.late.2 Q=2");
    }
    follower.hearUntil([&] { return follower.told.known.size() == 1; });
    early.cancel("A.*");
    EXPECT_EQ(follower.hear(" -A.*"), " -A.*");
}

TEST_F(Following, ClientsCannotSpeakForTheDaemonAndAWildcardDoesNotFollow) {
    Follower follower(daemon.port());
    follower.hear(" complete");
    RawClient client = session();
    client.listen(">");
    for (const char* subject : {"_RVD.INTEREST", "_RVD.*", "_RVD.>", "_RVD.LOST"}) {
        client.publish(subject, "forged");
    }
    client.publish("_RVD.HOSTS", "fine");
    EXPECT_EQ(client.expectNext().subject, "_RVD.HOSTS");
    follower.client.listen("_RVD.HOSTS");
    follower.client.publish("_RVD.INTEREST", "forged");
    follower.client.publish("_RVD.LOST", "unreadable");
    follower.client.publish("_RVD.HOSTS", "answer");
    EXPECT_EQ(client.expectText(), "answer");
    client.publish("_RVD.HOSTS", "question");
    EXPECT_EQ(follower.hear("=question"), " +> _RVD.HOSTS=question");
    EXPECT_EQ(daemon.lawBrokenNow(), "");
    EXPECT_NE(daemon.log().find("messages.reserved=5 "), std::string::npos);
    EXPECT_NE(daemon.log().find("messages.unreadable=1 "), std::string::npos);
}

TEST_F(Following, ALossBetweenHostsIsToldInOrderToThoseWhoWouldHaveGotTheMessages) {
    Follower follower(daemon.port());
    follower.client.listen("X.*");
    RawClient exact = session();
    RawClient wild = session();
    RawClient other = session();
    exact.listen("X.1");
    wild.listen("X.>");
    other.listen("Y");
    for (RawClient* client : {&exact, &wild, &other}) client->settle();
    follower.client.publish("X.1", "before");
    follower.reportLoss("X.1", 7);
    follower.reportLoss("X.2", 5'000'000'000);
    follower.client.publish("X.1", "after");
    follower.client.publish("Y", "marker");
    EXPECT_EQ(exact.expectText(), "before");
    EXPECT_EQ(textOf(lossIn(exact.expectNext())), "7, 0, link");
    EXPECT_EQ(exact.expectText(), "after");
    EXPECT_EQ(wild.expectText(), "before");
    EXPECT_EQ(textOf(lossIn(wild.expectNext())), "7, 0, link");
    EXPECT_EQ(textOf(lossIn(wild.expectNext())), "4294967295, 0, link");
    EXPECT_EQ(wild.expectText(), "after");
    EXPECT_EQ(other.expectText(), "marker");
}

TEST(SlowFollower, IsToldAnewWhenItsQueueHasDroppedSomething) {
    Daemon daemon({"-queue-limit", "100k"});
    Follower follower(daemon.port(), 4'096);
    follower.hear(" complete");
    follower.client.listen("FLOOD");
    RawClient busy = RawClient::session(daemon.port());
    for (int i = 0; i < 20'000; ++i) busy.listen("A." + std::to_string(i));
    for (int i = 0; i < 200; ++i) busy.publish("FLOOD", std::string(50'000, 'x'));
    for (int i = 0; i < 10'000; ++i) busy.cancel("A." + std::to_string(2 * i));
    busy.settle();
    follower.hearUntil([&] { return follower.told.snapshots > 1 && follower.told.isComplete; });
    std::set<std::string> truth;
    for (int i = 0; i < 10'000; ++i) truth.insert("A." + std::to_string(2 * i + 1));
    EXPECT_EQ(follower.told.known, truth);
}

}  // namespace
}  // namespace kvx::test
