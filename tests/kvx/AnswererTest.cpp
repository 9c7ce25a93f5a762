// What a client says to the members that answer it, which the test plays.

#include "kvx/Client.h"
#include "kvx/Conversation.h"
#include "mom/mom.h"
#include "tests/support/Daemon.h"
#include "tests/support/Home.h"
#include "tests/support/Packets.h"

namespace kvx {
namespace {

using namespace std::chrono_literals;
using test::Daemon;
using test::eventually;
using test::Home;

// Packets of one row each, {"n", i}. The count is in the last one only.
test::Texts packets(int rows) {
    CVekTransport transport(nullptr);
    for (int i = 0; i < rows; ++i) transport.RTAddRecord(&Record{{"n", i}}.base());
    transport.RTCreatePackets(VEK_TRANS_V0, true);
    test::Texts all = test::packetsOf(transport);
    for (auto packet = all.begin(); packet + 1 != all.end(); ++packet) packet->replace(8, 8, 8, 0);
    return all;
}

// A member that says what the test wants, on a session of the test's own thread.
class Member {
  public:
    Member(const std::string& daemon, const std::string& subject) {
        rv_Listener listener = nullptr;
        EXPECT_EQ(rv_CreateSession(&session_, nullptr, "", "", daemon.c_str()), 0);
        EXPECT_EQ(rv_Listen(session_, &listener, subject.c_str(), onQuestion, this), 0);
        EXPECT_EQ(rv_CreateInbox(session_, &listener, inbox_.data(), inbox_.size(), onTake, this),
                  0);
    }
    ~Member() { rv_Close(session_); }
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;

    std::string inbox() const { return inbox_.data(); }

    // Hears the next question, and gives its window.
    std::optional<std::uint32_t> hear() {
        if (!awaitOneOf(questions_)) return std::nullopt;
        querier_ = questions_.front().inbox;
        const std::uint32_t window = questions_.front().upTo;
        questions_.pop_front();
        return window;
    }

    void send(const std::string& packet) {
        RvMsg message(0UL);
        message.append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(packet.size()), packet.data());
        EXPECT_EQ(rv_Send(session_, querier_.c_str(), inbox_.data(), RVMSG_MSG, message.size(),
                          message.data()),
                  0);
    }

    // The next one; the number of the last packet that may be sent.
    std::optional<std::uint32_t> take() {
        if (!awaitOneOf(takes_)) return std::nullopt;
        const conversation::Take next = takes_.front();
        takes_.pop_front();
        EXPECT_EQ(next.inbox, querier_);
        return next.upTo;
    }

  private:
    using Takes = std::deque<conversation::Take>;

    bool awaitOneOf(const Takes& some) {
        return eventually([&] {
            if (some.empty()) rv_Dispatch(session_, 20);
            return !some.empty();
        });
    }

    static void onQuestion(rv_Session, const char*, const char* reply, rvmsg_Type, rvmsg_Size,
                           rvmsg_Data data, void* member) {
        const auto window = conversation::readWindow(RvMsg(const_cast<rvmsg_Msg>(data)));
        static_cast<Member*>(member)->questions_.push_back({reply, window.value_or(0)});
    }

    static void onTake(rv_Session, const char*, const char*, rvmsg_Type, rvmsg_Size,
                       rvmsg_Data data, void* member) {
        const auto take = conversation::readTake(RvMsg(const_cast<rvmsg_Msg>(data)));
        ASSERT_TRUE(take);
        static_cast<Member*>(member)->takes_.push_back(*take);
    }

    rv_Session session_ = nullptr;
    std::array<char, 256> inbox_{};
    std::string querier_;
    Takes questions_;  // with their windows
    Takes takes_;
};

class ConversationTest : public ::testing::Test {
  protected:
    ConversationTest()
        : client(*Client::open(
              {.onWarning = [this](const std::string& text) { warnings.push_back(text); }})),
          subject(client.inDomain(links.querySubject())),
          first(daemon.text(), subject),
          other(daemon.text(), subject) {}

    static int number(RowStream& stream) {
        const auto row = stream.next();
        return row && *row ? (*row)->get<int>("n").value_or(-2) : -1;
    }

    Daemon daemon;
    Home home{daemon.text()};
    std::vector<std::string> warnings;  // read when the client has ended
    Client client;
    const ServiceName links = *ServiceName::of("Links");
    const std::string subject;
    Member first;
    Member other;
    const test::Texts sent = packets(200);
};

TEST_F(ConversationTest, IsWithTheFirstThatAnswersAndEndsTheOther) {
    auto answer = client.queryAsync(links, "*");
    EXPECT_EQ(first.hear(), conversation::kFirstWindow);
    EXPECT_EQ(other.hear(), conversation::kFirstWindow);
    first.send(packets(2)[0]);
    EXPECT_EQ(first.take(), 1 + conversation::kWindow);
    for (int i = 0; i < 2; ++i) {
        other.send(sent[0]);
        EXPECT_EQ(other.take(), 0U);
    }
    first.send(packets(2)[1]);
    EXPECT_EQ(answer.get(), (Rows{{{"n", 0}}, {{"n", 1}}}));
    client.end();
    EXPECT_EQ(warnings, std::vector{"query Links: " + other.inbox() +
                                    " answered too; its packets are ignored"});
}

TEST_F(ConversationTest, GrantsWhatIsTakenAndNoMore) {
    auto stream = client.stream(links, "*", 200ms);
    first.hear();
    for (int i = 0; i < 8; ++i) first.send(sent[static_cast<std::size_t>(i)]);
    EXPECT_EQ(client.query("Nobody", "*", 400ms).error().code, Errc::TimedOut);
    EXPECT_EQ(number(stream), 0) << "and no time-out while the reader is slow";
    EXPECT_EQ(first.take(), 65U) << "nothing was granted before";
    for (int i = 8; i < 65; ++i) first.send(sent[static_cast<std::size_t>(i)]);
    for (int i = 1; i < 65; ++i) EXPECT_EQ(number(stream), i);
    EXPECT_EQ(first.take(), 34U + 64U);
    EXPECT_EQ(stream.totals().packets, 65U);
    stream.cancel();
    EXPECT_EQ(first.take(), 0U);
    EXPECT_EQ(stream.next().error().text, "cancelled");
}

TEST_F(ConversationTest, GrantsAsItComesWhereAllIsWaitedFor) {
    auto stream = client.stream(links, "*");
    first.hear();
    first.send(sent[0]);
    EXPECT_EQ(number(stream), 0);
    auto rest = std::async(std::launch::async, [&] { return stream.rest(); });
    std::size_t granted = first.take().value_or(0);
    EXPECT_EQ(granted, 65U);
    for (std::size_t next = 1; next < 130;) {
        for (; next < std::min<std::size_t>(granted, 130); ++next) first.send(sent[next]);
        if (next == 130) break;
        const std::size_t before = std::exchange(granted, first.take().value_or(0));
        ASSERT_GT(granted, before);
        EXPECT_LE(granted, next + 64) << "beyond what came";
    }
    first.send(sent[129]);
    const QueryResult rows = rest.get();
    ASSERT_FALSE(rows);
    EXPECT_EQ(rows.error().code, Errc::MixedAnswers);
    EXPECT_EQ(rows.error().rows.size(), 129U);
}

TEST_F(ConversationTest, EndsAnAnswerThatIsNoneAnyMore) {
    auto late = client.queryAsync(links, "*", 100ms);
    first.hear();
    other.hear();
    first.send(sent[0]);
    EXPECT_EQ(late.get().error().code, Errc::Partial);
    EXPECT_EQ(first.take(), 65U);
    EXPECT_EQ(first.take(), 0U);
    auto doubled = client.stream(links, "*");
    other.hear();
    other.send(sent[0]);
    EXPECT_EQ(number(doubled), 0);
    EXPECT_EQ(other.take(), 65U);
    other.send(sent[2]);
    other.send(sent[2]);
    EXPECT_EQ(number(doubled), 2) << "what came after the hole";
    EXPECT_EQ(doubled.next().error().code, Errc::MixedAnswers);
    EXPECT_EQ(other.take(), 0U);
}

TEST_F(ConversationTest, IsEndedByAStreamOrAClientThatGoes) {
    auto cancelled = client.stream(links, "*");
    first.hear();
    other.hear();
    first.send(sent[0]);
    EXPECT_EQ(number(cancelled), 0);
    EXPECT_EQ(first.take(), 65U);
    std::thread reader([&] { EXPECT_EQ(cancelled.next().error().code, Errc::Ended); });
    cancelled.cancel();
    reader.join();
    EXPECT_EQ(first.take(), 0U);
    auto outlives = client.stream(links, "*");
    other.hear();
    other.send(sent[0]);
    EXPECT_EQ(number(outlives), 0);
    EXPECT_EQ(other.take(), 65U);
    client.end();
    EXPECT_EQ(other.take(), 0U);
    EXPECT_EQ(outlives.next().error().text, "the client has ended");
    EXPECT_EQ(client.stream("no.name", "*").next().error().code, Errc::InvalidArgument);
}

// The loop does not run between two calls, and so does not see what has come.
TEST_F(ConversationTest, DoesNotTimeOutWhileItsReaderDoesSomethingElse) {
    client.end();
    auto here = Client::onThisThread({.timeout = 100ms});
    auto stream = here->stream(links, "*");
    first.hear();
    first.send(packets(2)[0]);
    EXPECT_EQ(number(stream), 0);
    EXPECT_EQ(first.take(), 65U);
    first.send(packets(2)[1]);
    const auto asked = std::chrono::steady_clock::now();
    ASSERT_TRUE(eventually([&] { return std::chrono::steady_clock::now() > asked + 200ms; }));
    EXPECT_EQ(number(stream), 1);
    EXPECT_FALSE(*stream.next());
    EXPECT_EQ(here->query("Nobody", "*").error().code, Errc::TimedOut);
}

}  // namespace
}  // namespace kvx
