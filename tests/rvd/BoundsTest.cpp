// What one peer holds, and all of them together, in the real daemon.

#include "tests/support/Daemon.h"
#include "tests/support/ProcessUsage.h"
#include "tests/support/RawClient.h"
#include "tests/support/Sanitizer.h"

namespace kvx::test {
namespace {

constexpr long long kMiB = 1 << 20;

class Bounds : public testing::Test {
  protected:
    explicit Bounds(std::vector<std::string> options = {"-memory", "32M"})
        : daemon(std::move(options)), sender(RawClient::session(daemon.port())) {}

    // A session that listens and then reads nothing.
    RawClient deaf(const std::string& subject) {
        RawClient client = RawClient::nameless(daemon.port(), 4096);
        client.listen(subject);
        client.settle();
        return client;
    }
    void publish(const std::string& subject, std::size_t size) {
        sender.publish(subject, std::string(size, 'x'));
        sender.settle();
    }
    void expectResidentBelow(long long bytes) {
        if (kIsWatched) return;
        EXPECT_TRUE(eventually([&] { return residentBytes(daemon.pid()) < bytes; }))
            << residentBytes(daemon.pid()) / kMiB << " MiB";
    }
    static void expectEndedFor(RawClient& client, const char* cause) {
        const auto loss = lossIn(client.expectNext());
        ASSERT_TRUE(loss);
        EXPECT_EQ(loss->cause, cause);
        EXPECT_TRUE(client.expectClosed());
    }
    std::map<std::string, std::uint64_t> countersAtEnd() {
        sender.close();
        daemon.askToStop();
        EXPECT_EQ(daemon.waitForEnd(), 0);
        auto counters = countersIn(daemon.log());
        EXPECT_EQ(counters["sessions.open"] + counters["listens.open"], 0U);
        return counters;
    }

    const ByteVector largest = dataMessage("U", std::string(30'000'000, 'x'));
    static constexpr long long kResidentLimit = 32 * kMiB * 13 / 10 + 32 * kMiB;
    Daemon daemon;
    RawClient sender;
};

TEST_F(Bounds, EndWhoHasTheLargestMessageHalfWritten) {
    std::vector<RawClient> clients;
    for (int i = 0; i < 4; ++i) {
        const std::string subject = "G." + std::to_string(i);
        clients.push_back(deaf(subject));
        publish(subject, (12 - i) * 1'000'000);
        EXPECT_TRUE(kIsWatched || residentBytes(daemon.pid()) < kResidentLimit);
    }
    EXPECT_NE(daemon.awaitLog("is closed: it held most of a full memory"), "");
    clients.clear();
    auto counters = countersAtEnd();
    EXPECT_EQ(counters["connections.evicted"], 1U);
    EXPECT_EQ(counters["dropped.memory"], 1U);
}

TEST_F(Bounds, EndWhoHasTheLargestMessageHalfReadAndTellIt) {
    const wire::Bytes giant = largest;
    RawClient first = RawClient::session(daemon.port());
    RawClient second = RawClient::session(daemon.port());
    first.send(giant.first(4'000'000));
    second.send(giant.first(20'000'000));
    expectEndedFor(second, "daemon memory");
    first.send(giant.subspan(4'000'000));
    first.settle();
}

// The n-th pattern has a "*" at each bit of n; all fit but for the last element. The message is its
// own, read with the last listen.
TEST_F(Bounds, EndWhosePatternsCostAMessageTooMuchAndTellIt) {
    RawClient client = RawClient::session(daemon.port());
    for (unsigned i = 0; i < 2048; ++i) {
        std::string pattern;
        for (unsigned bit = 1; bit < 2048; bit *= 2) pattern += (i & bit) != 0 ? "*." : "a.";
        client.listen(pattern + "z");
    }
    client.publish("a.a.a.a.a.a.a.a.a.a.a.y", "");
    expectEndedFor(client, "patterns take more than 1024 steps");
    EXPECT_NE(daemon.awaitLog("is closed: its patterns take more than 1024 steps"), "");
    client.close();
    EXPECT_EQ(countersAtEnd()["connections.failed"], 1U);
}

TEST_F(Bounds, DropTheOldestOfWhoHoldsMostAndNothingOfOthers) {
    RawClient full = deaf("FULL");
    RawClient other = deaf("OTHER");
    for (int i = 0; i < 50; ++i) publish("OTHER", 100'000);
    for (int i = 0; i < 50; ++i) publish("FULL", 1'000'000);
    for (int i = 0; i < 50; ++i) EXPECT_EQ(other.expectText().size(), 100'000U);
    expectResidentBelow(kResidentLimit);
    full.close();
    other.close();
    auto counters = countersAtEnd();
    EXPECT_GT(counters["dropped.memory"], 10U);
    EXPECT_EQ(counters["connections.evicted"], 0U);
}

TEST_F(Bounds, CountABroadcastOnce) {
    std::vector<RawClient> clients;
    for (int i = 0; i < 5; ++i) clients.push_back(deaf("ALL"));
    for (int i = 0; i < 3; ++i) publish("ALL", 4'000'000);
    for (RawClient& client : clients) {
        for (int i = 0; i < 3; ++i) EXPECT_EQ(client.expectText().size(), 4'000'000U);
    }
}

TEST_F(Bounds, IncludeTheCostOfTinyMessagesAndReturnTheMemory) {
    RawClient slow = deaf("TINY");
    const ByteVector one = dataMessage("TINY", "");
    ByteVector many;
    for (int i = 0; i < 5'000; ++i) many.insert(many.end(), one.begin(), one.end());
    for (int i = 0; i < 100; ++i) sender.send(many);
    sender.settle();
    expectResidentBelow(kResidentLimit);
    slow.close();
    expectResidentBelow(20 * kMiB);
    EXPECT_GT(countersAtEnd()["dropped.memory"], 100'000U);
}

struct WithoutMemoryLimit : Bounds {
    WithoutMemoryLimit() : Bounds({"-queue-limit", "30M"}) {}
};

TEST_F(WithoutMemoryLimit, AnIgnoredMessageIsGivenBackAtOnce) {
    RvMsg odd;
    odd.append("mtype", "Z");
    odd.append("data", std::string(32 << 20, 'x').c_str());
    std::vector<RawClient> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(RawClient::session(daemon.port()));
        clients.back().send(bytesOf(odd));
        clients.back().settle();
    }
    expectResidentBelow(30 * kMiB);
}

TEST_F(WithoutMemoryLimit, WhatAReaderHasTakenOfALargeMessageDoesNotWait) {
    RawClient slow = deaf("LARGE");
    publish("LARGE", 29'000'000);
    const std::size_t taken = slow.read(15'000'000).size();
    for (int i = 0; i < 100; ++i) publish("LARGE", 100'000);
    EXPECT_EQ(taken, 15'000'000U);
    slow.close();
    EXPECT_EQ(countersAtEnd()["dropped.queue"], 0U);
}

TEST_F(WithoutMemoryLimit, TheLogNamesWhoDoesNotKeepUpAndSaysWhenItDoesAgain) {
    RawClient slow = deaf("FLOOD");
    slow.confirm("", "", "SLOW.SESSION");
    slow.settle();
    for (int i = 0; i < 50; ++i) publish("FLOOD", 1'000'000);
    const std::string peer = "SLOW.SESSION (127.0.0.1:" + std::to_string(slow.localPort()) + ')';
    EXPECT_NE(daemon.awaitLog(peer + " does not keep up: "), "");
    slow.settle();
    EXPECT_NE(daemon.awaitLog(peer + " keeps up again: "), "");
}

TEST_F(WithoutMemoryLimit, ListensOfManyElementsCostWhatIsPromisedAndAreGivenBackInTenSeconds) {
    const long long before = residentBytes(daemon.pid());
    RawClient client = RawClient::session(daemon.port());
    std::string elements;
    for (int i = 0; i < 90; ++i) elements += ".ab";
    long long allowed = 0;
    for (long long sent = 0, i = 0; sent < 41 * kMiB; ++i) {
        const auto message =
            wire::buildListen(encodedSubject("E" + std::to_string(i) + elements), nullptr, 0);
        client.send(message.message.view());
        sent += static_cast<long long>(message.message.view().size());
        allowed += 4 * static_cast<long long>(message.message.view().size()) + 256;
    }
    client.settle();
    EXPECT_TRUE(kIsWatched || residentBytes(daemon.pid()) < before + allowed);
    client.close();
    const auto isBack = [&] { return residentBytes(daemon.pid()) < before + 20 * kMiB; };
    EXPECT_TRUE(kIsWatched || eventually(isBack, std::chrono::seconds(10)));
}

TEST_F(WithoutMemoryLimit, OneListenTooManyEndsTheSessionWithTheLimitNamed) {
    RawClient client = RawClient::session(daemon.port());
    for (int i = 0; i <= 262'144; ++i) client.listen("L." + std::to_string(i));
    expectEndedFor(client, "more than 262144 listens");
    EXPECT_NE(daemon.awaitLog(" is closed: more than 262144 listens"), "");
}

TEST(WithoutMemory, TheDaemonLosesConnectionsAndServesTheOthers) {
    if (kIsWatched) GTEST_SKIP() << "a sanitizer needs the address space";
    Daemon daemon({"-memory", "4G", "-queue-limit", "1G"}, {}, "ulimit -v 200000");
    const ByteVector giant = dataMessage("U", std::string(40'000'000, 'x'));
    std::vector<RawClient> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(RawClient::session(daemon.port()));
        clients.back().send(wire::Bytes(giant).first(39'999'000));
    }
    EXPECT_NE(daemon.awaitLog("is closed: no memory"), "");
    clients.clear();
    RawClient::session(daemon.port()).settle();
    daemon.askToStop();
    EXPECT_EQ(daemon.waitForEnd(), 0);
}

}  // namespace
}  // namespace kvx::test
