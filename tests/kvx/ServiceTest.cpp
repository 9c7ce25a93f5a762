// A service in this process, and one in another that fails.

#include "kvx/Conversation.h"
#include "kvx/HeldQuestions.h"
#include "kvx/QuestionPool.h"
#include "kvx/kvx.h"
#include "tests/support/Daemon.h"
#include "tests/support/Home.h"

namespace kvx {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::Daemon;
using test::eventually;
using test::Home;

struct ServiceTest : ::testing::Test {
    Daemon daemon;
    Home home{daemon.text()};
};

TEST_F(ServiceTest, RunsOnceAndDoesWhatWasPostedBefore) {
    auto service = Service::open("Links", {});
    ASSERT_TRUE(service) << service.error().message();
    EXPECT_EQ(Service::open("Links", {}).error().code, Errc::Busy);
    EXPECT_EQ(Client::open().error().code, Errc::Busy);
    int done = 0;
    service->stop();
    EXPECT_TRUE(service->post([&] {
        ++done;
        EXPECT_TRUE(service->post([&] { ++done; })) << "the loop may be ending: done all the same";
    }));
    EXPECT_EQ(service->run(), 0);
    EXPECT_EQ(done, 2);
    EXPECT_EQ(service->run(), 1);
    EXPECT_EQ(service->post([] {}).error().code, Errc::Ended);
    EXPECT_EQ(service->notify(Record{{"a", 1}}).error().code, Errc::Ended);
}

TEST_F(ServiceTest, LeavesSignalsToAProgramThatWantsThem) {
    static std::atomic<int> caught{0};
    const auto count = +[](int) { ++caught; };
    const auto before = std::signal(SIGTERM, count);
    auto service = Service::open("Links", {.endsBySignals = false});
    bool stillRuns = false;
    service->onRole([&](bool) {
        std::raise(SIGTERM);
        EXPECT_TRUE(service->post([&] {
            stillRuns = true;
            service->stop();
        }));
    });
    EXPECT_EQ(service->run(), 0);
    EXPECT_TRUE(stillRuns);
    EXPECT_GT(caught, 0);
    EXPECT_EQ(std::signal(SIGTERM, before), count);
}

TEST_F(ServiceTest, NeedsNotRun) {
    auto service = std::make_unique<Service>(*Service::open("Links", {.group = "links"}));
    service->onQuery([](const Question&, Reply&) {});
    EXPECT_TRUE(service->notify(Record{{"a", 1}}));
    EXPECT_TRUE(service->post([] { FAIL(); }));
    service.reset();
    EXPECT_TRUE(Service::open("Links", {}));
}

TEST_F(ServiceTest, TellsAndPostsFromManyThreads) {
    constexpr int kEach = 100;
    auto service = Service::open("Links", {});
    std::atomic<int> heard{0};
    std::atomic<int> posted{0};
    ASSERT_TRUE(service->onMessage("ZEMBRALIX.3.0.LINKS.NOTIFY", [&](const Message&) {
        if (++heard == 8 * kEach) service->stop();
    }));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                EXPECT_TRUE(service->notify(Record{{"n", i}}));
                EXPECT_TRUE(service->post([&] { ++posted; }));
                static_cast<void>(service->isActive());
            }
        });
    }
    EXPECT_EQ(service->run(), 0);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(posted, 8 * kEach);
}

TEST_F(ServiceTest, AnswersWhateverItIsAskedAndEndsWhileAFunctionBlocks) {
    ChildProcess odd(KVX_ODD_SERVICE, {});
    ASSERT_EQ(odd.awaitOutput("active"), "active") << odd.errors();
    auto client = Client::open({.timeout = 60s});  // a huge answer takes a sanitizer long
    ASSERT_TRUE(client) << client.error().message();
    const auto answer = [&](std::string_view text) {
        const auto rows = client->query("Odd", text);
        return rows ? rows->at(0).toString() : rows.error().message();
    };
    EXPECT_EQ(answer(""), "size=0");
    EXPECT_EQ(answer("throw"), "query Odd: refused: no such thing");
    EXPECT_EQ(answer("throw 7"), "query Odd: refused: the service failed");
    EXPECT_EQ(client->query("Odd", "refuse").error().rows,
              (Rows{{{"error", "not here"}, {"position", 3}}}));
    EXPECT_EQ(answer("huge"), "query Odd: refused: the rows are too large for a message");
    EXPECT_EQ(answer(std::string(1U << 20U, 'x')), "size=1048576");
    EXPECT_EQ(answer(std::string(2U << 20U, 'x')),
              "query Odd: refused: the question is longer than 1 MiB");
    auto blocked = client->queryAsync(*ServiceName::of("Odd"), "block");
    ASSERT_EQ(odd.awaitOutput("blocked"), "blocked");
    EXPECT_EQ(answer("x"), "size=1") << "the other thread answers";
    odd.kill(SIGTERM);
    EXPECT_EQ(odd.wait(), 0);
    EXPECT_NE(odd.output().find("ended"), std::string::npos);
}

TEST_F(ServiceTest, GivesAsMuchAsIsTakenWhileShortAnswersPass) {
    for (const char* threads : {"2", "0"}) {
        ChildProcess odd(KVX_ODD_SERVICE, {threads});
        ASSERT_EQ(odd.awaitOutput("active"), "active") << odd.errors();
        auto client = Client::open();
        ASSERT_TRUE(client) << client.error().message();
        std::vector<RowStream> streams;
        for (int i = 0; i < 4; ++i) streams.push_back(client->stream("Odd", "20000"));
        for (RowStream& stream : streams) ASSERT_TRUE(stream.next());
        EXPECT_EQ(client->query("Odd", "x")->size(), 1U) << "beside those that wait";
        EXPECT_EQ(client->query("Odd", "throw").error().text, "no such thing");
        int rows = 0;
        for (auto row = streams[0].next(); row && *row; row = streams[0].next()) ++rows;
        EXPECT_EQ(rows, 19999);
        EXPECT_EQ(streams[0].totals().packets, 200U);
        streams.clear();
        EXPECT_EQ(client->query("Odd", "300")->size(), 300U) << "beside those that end";
        if (*threads == '2') {
            EXPECT_EQ(odd.awaitOutput("unwanted"), "unwanted: 20000");
        }
        odd.kill(SIGTERM);
        EXPECT_EQ(odd.wait(), 0);
    }
}

TEST_F(ServiceTest, GivesUpAnAnswerThatIsNotTakenAndSaysSo) {
    ChildProcess odd(KVX_ODD_SERVICE, {"2", "1"});
    ASSERT_EQ(odd.awaitOutput("active"), "active") << odd.errors();
    auto client = Client::open();
    auto slow = client->stream("Odd", "20000");
    ASSERT_TRUE(slow.next());
    EXPECT_NE(odd.awaitOutput("unwanted"), "");
    auto row = slow.next();
    while (row && *row) row = slow.next();
    ASSERT_FALSE(row);
    EXPECT_EQ(row.error().message(), "query Odd: refused: the rows were not taken in time");
}

TEST_F(ServiceTest, DoesNotCountItsOwnStandstillAgainstAQuerier) {
    ChildProcess odd(KVX_ODD_SERVICE, {"2", "2"});
    ASSERT_EQ(odd.awaitOutput("active"), "active") << odd.errors();
    auto client = Client::open();
    auto stream = client->stream("Odd", "20000");
    ASSERT_TRUE(stream.next());
    ASSERT_TRUE(eventually([&] { return stream.totals().packets == 65; })) << "all it may send";
    odd.kill(SIGSTOP);
    const auto stopped = std::chrono::steady_clock::now();
    ASSERT_TRUE(eventually([&] { return std::chrono::steady_clock::now() > stopped + 2500ms; }));
    odd.kill(SIGCONT);
    const auto rest = stream.rest();
    EXPECT_TRUE(rest) << rest.error().message();
}

TEST(TurnsTest, LetNobodyWaitUntilANewerOneIsAsFar) {
    detail::Turns turns(1);
    std::string steps;  // of whose turn it is
    detail::Turns::Turn first(turns);
    first.begin();
    for (int i = 0; i < 10; ++i) first.pass();
    std::thread newer([&] {
        detail::Turns::Turn turn(turns);
        for (turn.begin(); steps.size() < 10; turn.pass()) steps += 'n';
    });
    for (; steps.size() < 10; first.pass()) {
        if (!steps.empty()) steps += 'f';
    }
    first.end();
    newer.join();
    EXPECT_EQ(steps.substr(0, 10), "nfnfnfnfnf");
}

TEST(QuestionPoolTest, IsCrowdedWhenNoFurtherThreadCanBeHad) {
    std::promise<void> mayEnd;
    const auto end = mayEnd.get_future().share();
    detail::QuestionPool pool(1, 60s,
                              [&](const detail::Asked&, detail::Turns::Turn&) { end.wait(); });
    for (std::size_t i = 0; i < detail::QuestionPool::kMostThreads; ++i) {
        ASSERT_TRUE(pool.add({.text = "x", .replySubject = "y"}));
        EXPECT_TRUE(i + 1 == detail::QuestionPool::kMostThreads || !pool.isCrowded()) << i;
    }
    EXPECT_TRUE(eventually([&] { return pool.waiting() == 0; }));
    EXPECT_FALSE(pool.isCrowded());
    ASSERT_TRUE(pool.add({.text = "x", .replySubject = "y"}));
    EXPECT_TRUE(pool.isCrowded());
    mayEnd.set_value();
}

using std::chrono::milliseconds;

struct Question {
    std::string replySubject;
    std::string text;
};

struct HeldQuestionsTest : testing::Test {
    void hold(const std::string& inbox, int atMs, std::size_t bytes = 0) {
        held_.hold({inbox, std::string(bytes, 'x')}, start_ + milliseconds(atMs));
    }

    std::string take(int atMs) {
        std::string inboxes;
        for (const Question& question : held_.take(start_ + milliseconds(atMs))) {
            inboxes += question.replySubject + ";";
        }
        return inboxes;
    }

    const std::chrono::steady_clock::time_point start_{};
    HeldQuestions<Question> held_;
};

TEST_F(HeldQuestionsTest, AreGivenUpOnceWhileTheyAreYoungAndTakeLimitedRoom) {
    hold("A", 0);
    hold("B", 1000);
    hold("C", 2000);
    held_.forget("B");
    held_.forget("nobody");
    EXPECT_EQ(take(6000), "A;C;");
    EXPECT_EQ(take(6000), "");
    hold("D", 7000);
    hold("E", 8000);
    EXPECT_EQ(take(13001), "E;");
    for (int i = 0; i < 1500; ++i) hold(std::to_string(i), 20000);
    EXPECT_EQ(held_.size(), HeldQuestions<Question>::kMost);
    for (int i = 0; i < 66; ++i) hold(std::to_string(i), 21000, 1U << 20U);
    EXPECT_EQ(held_.size(), 64U) << "a mebibyte each";
    hold("late", 27001);
    EXPECT_EQ(held_.size(), 1U) << "what is too old goes without being asked for";
}

TEST(BegunNotice, NamesTheInboxAndAnyOtherMessageNone) {
    using conversation::readInbox;
    EXPECT_EQ(readInbox(conversation::begunMessage("_INBOX.A.1")), "_INBOX.A.1");
    RvMsg other;
    other.append("outbox", "X");
    EXPECT_EQ(readInbox(other), std::nullopt);
    EXPECT_EQ(readInbox(RvDatum(RVMSG_STRING, 1, "X")), std::nullopt);
}

}  // namespace
}  // namespace kvx
