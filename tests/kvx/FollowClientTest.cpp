// A client that follows a real service in other processes, through a real daemon.

#include "kvx/ReplyState.h"
#include "kvx/kvx.h"
#include "tests/support/Daemon.h"
#include "tests/support/Home.h"

namespace kvx {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::eventually;

class FollowClientTest : public ::testing::Test {
  protected:
    FollowClientTest() : client(*Client::open()) {}

    std::unique_ptr<ChildProcess> startService(const char* group = "",
                                               const char* role = "active") {
        auto service =
            std::make_unique<ChildProcess>(KVX_COUNTERS, std::vector<std::string>{group});
        EXPECT_NE(service->awaitOutput(role), "") << service->errors();
        return service;
    }

    Following follow() {
        auto following =
            client.follow("Counters", "*",
                          {.onRow = [this](const Record& row) { set(row); },
                           .onChange = [this](const Record& change) { onChange(change); },
                           .onResynchronised =
                               [this](std::span<const Record> differences) {
                                   ++resynchronised;
                                   for (const Record& one : differences) set(one);
                               },
                           .onEnd = [this](const Error& error) { end.set_value(error); }});
        EXPECT_TRUE(following) << following.error().message();
        return following ? std::move(*following) : Following();
    }

    void count() { static_cast<void>(client.publish(client.inDomain("COUNT"), {{"name", "a"}})); }

    // Whether it has seen, without a mistake, what the service has.
    bool isUpToDate() {
        const auto rows = client.query("Counters", "*", 1s);
        return rows && !rows->empty() && rows->front().get<int>("count") == last && wrong == 0;
    }

    test::Daemon daemon;
    test::Home home{daemon.text()};
    Client client;
    std::atomic<int> last{0};
    std::atomic<int> resynchronised{0};
    std::atomic<int> wrong{0};
    std::promise<Error> end;

  private:
    void onChange(const Record& change) {
        if (change.get<int>("count") != last + 1) ++wrong;
        set(change);
    }
    void set(const Record& row) {
        last = changeOf(row) == Change::Deleted ? 0 : *row.get<int>("count");
    }
};

TEST_F(FollowClientTest, GivesEveryChangeOnceOverATakeOver) {
    auto primary = startService("counters");
    const auto standby = startService("counters", "standing by");
    count();
    const Following following = follow();
    for (int i = 0; i < 100; ++i) count();
    EXPECT_TRUE(eventually([&] { return last == 101; }));
    EXPECT_EQ(resynchronised, 0);
    for (int i = 0; i < 100; ++i) count();
    primary->kill(SIGKILL);
    EXPECT_NE(standby->awaitOutput("active"), "");
    for (int i = 0; i < 100; ++i) count();
    EXPECT_TRUE(eventually([&] { return resynchronised > 0 && isUpToDate(); }))
        << last << " " << wrong;
}

TEST_F(FollowClientTest, GoesOnAfterARestartOfTheDaemonAndOfTheService) {
    auto service = startService();
    const Following following = follow();
    EXPECT_TRUE(eventually([&] { return count(), last > 0; }));
    daemon.restart();
    const int before = last;
    EXPECT_TRUE(eventually([&] { return count(), last > before + 1; }));
    EXPECT_EQ(resynchronised, 0) << "the history has what was missed";
    EXPECT_TRUE(eventually([&] { return isUpToDate(); })) << last << " " << wrong;
    service.reset();
    service = startService();
    EXPECT_TRUE(eventually([&] { return count(), resynchronised > 0; }));
    EXPECT_TRUE(eventually([&] { return isUpToDate(); })) << last << " " << wrong;
}

TEST_F(FollowClientTest, EndsByItselfWhenThereIsNothingToFollowAndByItsHandle) {
    EXPECT_EQ(client.follow("JubGate", "*", {}).error().code, Errc::InvalidArgument);
    EXPECT_EQ(client.follow("no.name", "*", {}).error().code, Errc::InvalidArgument);
    std::promise<Error> noBody;
    const auto nothing = client.follow(
        "Nobody", "*", {.onEnd = [&](const Error& why) { noBody.set_value(why); }}, 50ms);
    EXPECT_EQ(noBody.get_future().get().code, Errc::TimedOut);
    const auto service = startService();
    std::optional<Following> ending;
    std::promise<void> isKept;
    std::atomic<int> calls{0};
    for (const char* name : {"b", "c"}) {
        EXPECT_TRUE(client.publish(client.inDomain("COUNT"), {{"name", name}}));
    }
    auto mine = client.follow("Counters", "*", {.onRow = [&](const Record&) {
                                  if (++calls > 1) return;
                                  isKept.get_future().wait();
                                  ending.reset();
                              }});
    ending.emplace(std::move(*mine));
    isKept.set_value();
    EXPECT_TRUE(eventually([&] { return calls > 0; }));
    const Following other = follow();
    count();
    EXPECT_TRUE(eventually([&] { return last > 0; }));
    EXPECT_EQ(calls, 1) << "it ended itself at the first of two rows";
    client.end();
    EXPECT_EQ(end.get_future().get().code, Errc::Ended);
}

TEST_F(FollowClientTest, SaysThatAServiceDoesNotNumberItsChanges) {
    ChildProcess links(KVX_LINKS, {});
    EXPECT_NE(links.awaitOutput("active"), "") << links.errors();
    std::promise<Error> why;
    const auto following =
        client.follow("Links", "*", {.onEnd = [&](const Error& error) { why.set_value(error); }});
    EXPECT_EQ(why.get_future().get().message(),
              "follow Links: invalid argument: the service does not number its changes");
    ChildProcess tool(KVX_TOOL, {"follow", "Links", "*"});
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_NE(tool.errors().find("does not number its changes"), std::string::npos);
}

// Its rows are the reason, and no changes.
TEST_F(FollowClientTest, OutlivesANoticeThatIsARefusal) {
    const auto service = startService();
    const Following following = follow();
    count();
    EXPECT_TRUE(eventually([&] { return last == 1; }));
    CVekTransport rows(nullptr);
    ASSERT_TRUE(detail::addTo(rows, {{"name", "a"}}));
    auto stamp = std::make_unique<RvMsg>(0UL);
    ASSERT_TRUE(appendStamp(*stamp, {.epoch = 1, .number = 1}));
    const auto notice = detail::packetMessage(*detail::pack(rows, VEK_TRANS_V1)[0], 1, 1,
                                              STORE_PERMISSION_DENIED, std::move(stamp));
    const auto subject = ServiceName::of("Counters")->notifySubject();
    EXPECT_TRUE(client.publish(client.inDomain(subject), Message(*notice)));
    EXPECT_TRUE(eventually([&] { return resynchronised == 1; })) << "of another epoch";
    count();
    EXPECT_TRUE(eventually([&] { return last == 2; }));
    EXPECT_TRUE(isUpToDate());
}

TEST_F(FollowClientTest, IsShownByTheTool) {
    auto service = startService();
    count();
    ChildProcess text(KVX_TOOL, {"follow", "Counters", "*", "--count", "2"});
    ChildProcess json(KVX_TOOL, {"follow", "Counters", "*", "--json"});
    EXPECT_NE(text.awaitOutput(" - - name=a count=1"), "") << text.errors();
    EXPECT_NE(json.awaitOutput(R"("change":null,"table":null,"row":{"name":"a","count":1}})"), "");
    count();
    count();
    EXPECT_EQ(text.wait(), 0);
    EXPECT_NE(text.output().find(" changed - name=a count=3\n"), std::string::npos);
    service.reset();
    service = startService();
    EXPECT_NE(json.awaitOutput(R"("change":"deleted","table":null,"row":{"name":"a","count":3}})"),
              "");
    EXPECT_NE(json.awaitError("resynchronised: 1 difference"), "");
    json.kill(SIGINT);
    EXPECT_EQ(json.wait(), 0);
}

}  // namespace
}  // namespace kvx
