// A real client against a real service in another process, and against what is no good service.

#include "kvx/Answer.h"
#include "kvx/ReplyState.h"
#include "kvx/kvx.h"
#include "mom/mom.h"
#include "tests/support/Daemon.h"
#include "tests/support/Home.h"
#include "tests/support/Packets.h"

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
    // A round of attempts to reach a daemon that is gone lasts eight seconds.
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(codeOf(client.query(links, "*")), Errc::Lost);
    EXPECT_EQ(client.publish("A", {}).error().code, Errc::Lost);
    client.end();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
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

// Packets of one row each, {"n", i}, which a test spoils before they are sent as an answer.
struct HostileAnswerTest : ClientTest {
    static test::Texts packets(int rows, EVekTransHdr version = VEK_TRANS_V0) {
        CVekTransport transport(nullptr);
        for (int i = 0; i < rows; ++i) transport.RTAddRecord(&Record{{"n", i}}.base());
        transport.RTCreatePackets(version, true);
        return test::packetsOf(transport);
    }

    QueryResult ask(const test::Texts& answer) {
        const auto hostile =
            client.listen(client.inDomain(links.querySubject()), [&](const Delivery& question) {
                for (const std::string& packet : answer) {
                    const auto bytes = std::as_bytes(std::span(packet));
                    EXPECT_TRUE(client.publish(question.replySubject, {{"a", bytes}}));
                }
            });
        return client.query(links, "*", 300ms);
    }

    std::string failure(const test::Texts& answer) {
        const auto result = ask(answer);
        if (result) return "success";
        return textOf(result.error().code) + (": " + std::to_string(result.error().rows.size()));
    }

    static constexpr std::size_t kSequence = 7;  // the last byte of each number
    static constexpr std::size_t kCount = 15;
};

TEST_F(HostileAnswerTest, GivesItsRowsInTheirOrder) {
    const auto sent = packets(3);
    EXPECT_EQ(ask({sent[2], "no packet", sent[0], sent[1]}),
              (Rows{{{"n", 0}}, {{"n", 1}}, {{"n", 2}}}));
}

// Two services on one subject, one that sends a packet twice, one that cannot count.
TEST_F(HostileAnswerTest, IsMixedWhenItsPacketsAreNotOneToNOnceEach) {
    auto sent = packets(3);
    EXPECT_EQ(failure({sent[0], sent[1], sent[1]}), "mixed answers: 2");
    EXPECT_EQ(failure({sent[0], packets(2)[1]}), "mixed answers: 1");
    for (const char count : {'\0', '\1'}) {
        sent[1][kCount] = count;
        EXPECT_EQ(failure({sent[1]}), "mixed answers: 0");
    }
    sent[0][0] = '\xff';
    EXPECT_EQ(failure({sent[0]}), "mixed answers: 0") << "a number below 0";
}

TEST_F(HostileAnswerTest, IsPartialWhenPacketsLackOrCannotBeRead) {
    auto sent = packets(3);
    EXPECT_EQ(failure({sent[0], sent[2]}), "partial answer: 2");
    EXPECT_EQ(failure({sent[0].substr(0, 20)}), "timed out: 0") << "no whole header";
    EXPECT_EQ(failure({sent[0], sent[1], sent[2].substr(0, 30)}), "partial answer: 2");
    sent[0][kCount - 7] = '\x40';
    EXPECT_EQ(failure({sent[0]}), "partial answer: 0") << "2^62 packets";
    auto compressed = packets(100, VEK_TRANS_V1)[0];
    EXPECT_EQ(ask({compressed})->size(), 100U);
    for (const std::size_t spoilt : {24U, 27U, 40U}) {
        auto packet = compressed;
        packet[spoilt] = static_cast<char>(packet[spoilt] ^ 0x55);
        EXPECT_EQ(failure({packet}).substr(0, 14), "partial answer") << spoilt;
    }
}

TEST(AnswerTest, PaysForTheNamesOfItsSource) {
    CVekTransport row(nullptr);
    ASSERT_TRUE(detail::addTo(row, {{"n", 1}}));
    const auto packed = detail::pack(row, VEK_TRANS_V1);
    for (const std::size_t names : {60'000U, 70'000U}) {
        auto ahead = std::make_unique<RvMsg>(0UL);
        ASSERT_TRUE(appendSource(*ahead, {"", std::vector<std::string>(names)}));
        detail::Answer answer;
        answer.take(*detail::packetMessage(*packed[0], 1, 1, STORE_COMPLETE, std::move(ahead)),
                    true);
        const auto packets = answer.takeRest();
        EXPECT_EQ(packets.source.has_value(), names == 60'000) << "of 64 KiB at most";
        EXPECT_EQ(packets.cost > names * detail::Answer::kRecordCost, names == 60'000);
    }
}

// Four threads call and five subscriptions come and go while the client ends.
TEST_F(ClientTest, TellsWhatNobodyWaitsFor) {
    startService();
    std::promise<std::thread::id> posted;
    std::promise<void> goOn;
    ASSERT_TRUE(client.post([&] {
        posted.set_value(std::this_thread::get_id());
        goOn.get_future().wait();
    }));
    const auto loop = posted.get_future().get();
    const auto here = std::this_thread::get_id();

    auto rows = client.stream("Links", "core-1");
    std::promise<std::thread::id> ready;
    EXPECT_FALSE(rows.isReady([] { FAIL() << "it was replaced"; }));
    EXPECT_FALSE(rows.isReady([&] { ready.set_value(std::this_thread::get_id()); }));
    goOn.set_value();
    EXPECT_EQ(ready.get_future().get(), loop);
    EXPECT_TRUE(rows.isReady([] { FAIL() << "it is ready"; }));
    EXPECT_TRUE(**rows.next() == (Record{{"name", "core-1"}, {"state", "up"}}));
    auto unanswered = client.stream("Nobody", "");
    std::thread::id cancelledBy;
    EXPECT_FALSE(unanswered.isReady([&] { cancelledBy = std::this_thread::get_id(); }));
    unanswered.cancel();
    EXPECT_EQ(cancelledBy, here);
    EXPECT_EQ(unanswered.next().error().code, Errc::Ended);

    using Told = std::pair<std::thread::id, Errc>;
    const auto told = [&](std::string_view subject, std::chrono::milliseconds timeout) {
        auto promise = std::make_shared<std::promise<Told>>();  // set twice it would throw
        client.requestAsync(
            subject, {},
            [promise](const Result<Message>& reply) {
                promise->set_value({std::this_thread::get_id(), reply.error().code});
            },
            timeout);
        return promise->get_future();
    };
    EXPECT_EQ(told("NOBODY", 50ms).get(), Told(loop, Errc::TimedOut));
    EXPECT_EQ(told("NO..BODY", 50ms).get().second, Errc::InvalidArgument);
    auto waiting = told("NOBODY", 60s);
    client.end();
    EXPECT_EQ(waiting.get().second, Errc::Ended);
    EXPECT_EQ(told("NOBODY", 60s).get(), Told(here, Errc::Ended));
    EXPECT_EQ(client.post([] { FAIL(); }).error().code, Errc::Ended);
}

TEST_F(ClientTest, EndsWhileManyThreadsUseIt) {
    const auto echo = client.listen("ECHO", [&](const Delivery& delivery) {
        if (!delivery.replySubject.empty()) {
            static_cast<void>(client.publish(delivery.replySubject, delivery.message));
        }
    });
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    std::vector<std::future<QueryResult>> futures(8);
    for (std::size_t thread = 0; thread < futures.size(); ++thread) {
        threads.emplace_back([&, thread] {
            Result<> sent;
            while (sent || sent.error().code != Errc::Ended) {
                const auto subscription = client.listen("ECHO", [](const Delivery&) {});
                futures[thread] = client.queryAsync(links, "*");
                static_cast<void>(client.request("ECHO", {{"n", 1}}));
                sent = client.publish("ECHO", {{"n", 2}});
                ++calls;
            }
        });
    }
    ASSERT_TRUE(eventually([&] { return calls > 100; }));
    client.end();
    for (std::thread& thread : threads) thread.join();
    for (auto& future : futures) EXPECT_EQ(future.get().error().code, Errc::Ended);
}

TEST_F(ClientTest, EndsInItsOwnCallbackWithItsSubscriptions) {
    auto owned = std::make_unique<Client>(std::move(client));
    std::promise<Errc> promise;
    Result<Subscription> own;
    Result<Subscription> other = owned->listen("OTHER", [](const Delivery&) {});
    own = owned->listen("END", [&, count = 0](const Delivery&) mutable {
        if (++count < 3) return;
        owned.reset();
        other = Subscription();
        auto& heard = promise;
        own = Subscription();  // the function's captures live on
        heard.set_value(Client::open().error().code);
    });
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(owned->publish("END", {}));
    EXPECT_EQ(promise.get_future().get(), Errc::Busy) << "its thread has not ended yet";
    EXPECT_TRUE(eventually([] { return Client::open().has_value(); }));
}

TEST_F(ClientTest, SendsWhatIsNestedAsDeepAsIsReceived) {
    std::promise<Message> heard;
    const auto listens =
        client.listen("A", [&](const Delivery& got) { heard.set_value(got.message); });
    Message nested{{"a", 1}};
    for (int levels = 0; levels < 32; ++levels) nested = Message{{"m", nested}};
    const Message deeper{{"m", nested}};
    EXPECT_EQ(client.publish("A", deeper).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.request("A", deeper).error().code, Errc::InvalidArgument);
    EXPECT_TRUE(client.publish("A", nested));
    EXPECT_EQ(heard.get_future().get(), nested);
}

TEST_F(ClientTest, RefusesWhatCannotBeAsked) {
    const std::string_view zero("A\0B", 3);
    const auto ignore = [](const Delivery&) {};
    EXPECT_EQ(client.publish(zero, {}).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.publish("A..B", {}).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.request(zero, {}).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.request("", {}).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.request("A", {}, 0ms).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.request("A", {}, 20ms).error().code, Errc::TimedOut);
    EXPECT_EQ(client.query(links, "*", -1ms).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.listen(zero, ignore).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.listen("A..B", ignore).error().code, Errc::InvalidArgument);
    EXPECT_EQ(Client::open().error().message(),
              "open: busy: a process has one client or service at a time");
}

// A client without a thread of its own, and a net that has one already.
class OwnThreadTest : public ClientTest {
  protected:
    OwnThreadTest() { client.end(); }
};

TEST_F(OwnThreadTest, WaitsAndServesOnTheThreadThatCalls) {
    startService();
    auto here = Client::onThisThread(Client::Options());
    ASSERT_TRUE(here) << here.error().message();
    EXPECT_EQ(here->query("Links", "*")->size(), 2U);
    auto stream = here->stream("Links", "core-1");
    EXPECT_EQ((**stream.next()).get<std::string>("state"), "up");
    EXPECT_FALSE(*stream.next());
    EXPECT_EQ(here->query("Nobody", "*", 20ms).error().code, Errc::TimedOut);
    std::vector<std::thread::id> heard;
    const auto news = here->listen("NEWS", [&](const Delivery&) {
        heard.push_back(std::this_thread::get_id());
        EXPECT_EQ(here->query("Links", "*").error().code, Errc::InvalidArgument);
        if (heard.size() == 2) std::thread([&] { here->end(); }).join();
    });
    EXPECT_TRUE(here->publish("NEWS", {}));
    std::thread other([&] { EXPECT_TRUE(here->publish("NEWS", {})); });
    EXPECT_TRUE(here->run());
    other.join();
    EXPECT_EQ(heard, (std::vector{std::this_thread::get_id(), std::this_thread::get_id()}));
    EXPECT_EQ(here->query("Links", "*").error().code, Errc::Ended);
}

TEST_F(OwnThreadTest, TriesToReachTheDaemonBeforeItGivesUp) {
    auto here = Client::onThisThread({.timeout = 500ms});
    EXPECT_TRUE(here->connection().isThere);
    const std::string listening = daemon.text();
    daemon.kill();
    EXPECT_EQ(here->query("Nobody", "*").error().code, Errc::Lost);
    const Connection away = here->connection();
    EXPECT_EQ(away.address, listening);
    EXPECT_NE(away.why, "");
    daemon.restart();
    EXPECT_TRUE(eventually([&] { return here->publish("A", {}).has_value(); }));
}

TEST_F(OwnThreadTest, RidesOnANetAndLeavesItAlone) {
    startService();
    CVekClient net(0, "DEFAULT");
    EXPECT_EQ(std::async(std::launch::async, [] { return Client::open().error().code; }).get(),
              Errc::Busy);
    for (int i = 0; i < 2; ++i) {
        auto rider = Client::onThisThread(net, {});
        ASSERT_TRUE(rider) << rider.error().message();
        EXPECT_EQ(rider->query("Links", "core-1")->size(), 1U);
        EXPECT_TRUE(rider->listen("A", [](const Delivery&) {}));
    }
    EXPECT_TRUE(rv_IsConnected(net.m_session->handle()));
}

TEST(Client, NamesTheDaemonThatIsNotThere) {
    const Home home("tcp:127.0.0.1:1");
    const auto client = Client::open();
    ASSERT_FALSE(client);
    EXPECT_EQ(client.error().code, Errc::NoDaemon);
    EXPECT_EQ(client.error().message(),
              "connecting to the bus daemon at tcp:127.0.0.1:1: no daemon: attempts 1 to 4: The "
              "attempt to connect was forcefully rejected; none was started, since the address "
              "names a host");
    EXPECT_EQ(Client::open({.daemon = {"", "", "host"}}).error().text,
              "the address is not of the form tcp:[host:]port or unix:/path");
    EXPECT_EQ(Client::open({.domain = "A..B"}).error().code, Errc::InvalidArgument);
}

}  // namespace
}  // namespace kvx
