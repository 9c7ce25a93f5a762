// A real client against a real service in another process, and against what is no good service.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>

#include "kvx/kvx.h"
#include "mom/mom.h"
#include "tests/support/Daemon.h"
#include "tests/support/Home.h"

namespace kvx {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::Daemon;
using test::eventually;
using test::Home;

class ClientTest : public ::testing::Test {
  protected:
    ClientTest() : client(*Client::open()) {}

    void startService() {
        service.emplace(KVX_LINKS, std::vector<std::string>());
        ASSERT_EQ(service->awaitOutput("active"), "active") << service->errors();
    }

    Daemon daemon;
    Home home{daemon.text()};
    Client client;
    std::optional<ChildProcess> service;
    const ServiceName links = *ServiceName::of("Links");
};

TEST_F(ClientTest, AsksAServiceOfAnyName) {
    startService();
    const auto all = client.query("Links", "*");
    ASSERT_TRUE(all) << all.error().message();
    EXPECT_EQ(*all, (Rows{{{"name", "core-1"}, {"state", "up"}},
                          {{"name", "edge-1"}, {"state", "down"}}}));
    const auto none = client.query(links, "nobody");
    ASSERT_TRUE(none);
    EXPECT_TRUE(none->empty());
    service->kill(SIGTERM);
    EXPECT_EQ(service->wait(), 0);
}

TEST_F(ClientTest, HearsChangesOnceUntilItsSubscriptionEnds) {
    startService();
    std::promise<Record> heard;
    auto changes = client.snoop(links, [&](const Record& record) { heard.set_value(record); });
    ASSERT_TRUE(changes);
    const std::string subject = client.inDomain("LINK.STATE");
    EXPECT_TRUE(client.publish(subject, {{"name", "core-1"}, {"state", "up"}})) << "no change";
    EXPECT_TRUE(client.publish(subject, {{"name", "core-1"}, {"state", "down"}}));
    EXPECT_EQ(heard.get_future().get(), (Record{{"name", "core-1"}, {"state", "down"}}));
    changes = Subscription();
    EXPECT_TRUE(client.publish(subject, {{"name", "core-1"}, {"state", "up"}}));
    EXPECT_EQ(client.query(links, "core-1")->at(0).get<std::string>("state"), "up");
}

TEST_F(ClientTest, SaysWhatBecameOfAQuestion) {
    const auto codeOf = [](const QueryResult& result) {
        return result ? std::optional<Errc>() : result.error().code;
    };
    EXPECT_EQ(codeOf(client.query(links, "*", 50ms)), Errc::TimedOut);
    EXPECT_EQ(codeOf(client.query("no.name", "*")), Errc::InvalidArgument);
    EXPECT_EQ(codeOf(client.query(links, std::string_view("a\0b", 3))), Errc::InvalidArgument);
    auto lost = client.queryAsync(links, "*");
    auto ending = std::optional<std::future<QueryResult>>(client.queryAsync(links, "*"));
    daemon.kill();
    EXPECT_EQ(codeOf(lost.get()), Errc::Lost);
    EXPECT_EQ(codeOf(ending->get()), Errc::Lost);
}

TEST_F(ClientTest, GivesEndedToWhatWaitsWhenItEnds) {
    auto waiting = client.queryAsync(links, "*");
    auto heard = client.listen("A.>", [](const Delivery&) {});
    { const Client ending(std::move(client)); }
    EXPECT_EQ(waiting.get().error().code, Errc::Ended);
    ASSERT_TRUE(heard) << "and it may outlive the client";
}

TEST_F(ClientTest, RequestsAndAnswersFromAnyThread) {
    const auto echo = client.listen("ECHO", [&](const Delivery& delivery) {
        const auto refused = client.request("ECHO", {}, 10ms);
        EXPECT_EQ(refused.error().code, Errc::InvalidArgument) << "it would wait for itself";
        EXPECT_TRUE(client.publish(delivery.replySubject, delivery.message));
    });
    ASSERT_TRUE(echo);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 50; ++i) {
                const auto reply = client.request("ECHO", {{"n", thread * 1000 + i}});
                ASSERT_TRUE(reply) << reply.error().message();
                EXPECT_EQ(reply->get<int>("n"), thread * 1000 + i);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// Two services on one subject, or one that sends a packet twice.
TEST_F(ClientTest, TakesNoMixedAnswerForAWholeOne) {
    CVekTransport transport(nullptr);
    for (int i = 0; i < 3; ++i) transport.RTAddRecord(&Record{{"n", i}}.base());
    transport.RTCreatePackets(VEK_TRANS_V0, true);
    const std::unique_ptr<CVekAtomVector> packets(transport.RTEncodes());
    const auto twice =
        client.listen(client.inDomain(links.querySubject()), [&](const Delivery& question) {
            for (const unsigned packet : {0U, 1U, 1U}) {
                unsigned char* bytes = nullptr;
                int length = 0;
                packets->RAVGetValue(packet)->RAUChar(&bytes, &length);
                const Value::Bytes payload(reinterpret_cast<const std::byte*>(bytes),
                                           static_cast<std::size_t>(length));
                EXPECT_TRUE(client.publish(question.replySubject, {{"a", payload}}));
            }
        });
    ASSERT_TRUE(twice);
    const auto rows = client.query(links, "*");
    ASSERT_FALSE(rows);
    EXPECT_EQ(rows.error().code, Errc::MixedAnswers) << rows.error().message();
}

TEST(Client, NamesTheDaemonThatIsNotThere) {
    const Home home("tcp:127.0.0.1:1");
    const auto client = Client::open();
    ASSERT_FALSE(client);
    EXPECT_EQ(client.error().code, Errc::NoDaemon);
    EXPECT_EQ(client.error().tried, "connecting to the bus daemon at tcp:127.0.0.1:1");
}

}  // namespace
}  // namespace kvx
