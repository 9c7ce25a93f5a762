// What a client says to the members that answer it, which the test plays.

#include "kvx/Client.h"
#include "kvx/Conversation.h"
#include "mom/mom.h"
#include "tests/support/Daemon.h"
#include "tests/support/Home.h"
#include "tests/support/Packets.h"
#include "tests/support/RawClient.h"

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

// A member that says what the test wants, byte by byte: one session hears questions, one what is
// taken of its answers.
class Member {
  public:
    Member(const Daemon& daemon, const std::string& subject)
        : questions_(test::RawClient::session(daemon.port())),
          takes_(test::RawClient::session(daemon.port())),
          inbox_("_INBOX.MEMBER." + std::to_string(takes_.localPort())) {
        questions_.listen(subject);
        takes_.listen(inbox_);
        questions_.settle();
        takes_.settle();
    }

    const std::string& inbox() const { return inbox_; }

    // Hears the next question, and gives its window.
    std::uint32_t hear() {
        const test::Received question = questions_.expectNext();
        querier_ = question.reply;
        return conversation::readWindow(payloadOf(question)).value_or(0);
    }

    void send(const std::string& packet) {
        RvMsg message(0UL);
        message.append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(packet.size()), packet.data());
        questions_.send(wire::buildData(test::encodedSubject(querier_), inbox_.c_str(), 0,
                                        {RVMSG_MSG, 0, message.data()}));
    }

    // The next one; the number of the last packet that may be sent.
    std::uint32_t take() {
        const auto take = conversation::readTake(payloadOf(takes_.expectNext())).value();
        EXPECT_EQ(take.inbox, querier_);
        return take.upTo;
    }

  private:
    static RvMsg payloadOf(const test::Received& received) {
        RvMsg payload;
        const RvMsg message(const_cast<std::uint8_t*>(received.bytes.data()));
        EXPECT_TRUE(message.get("data", payload) == 0);
        return RvMsg(payload);  // a copy that owns its bytes
    }

    test::RawClient questions_;
    test::RawClient takes_;
    std::string inbox_;
    std::string querier_;
};

class ConversationTest : public ::testing::Test {
  protected:
    ConversationTest()
        : client(*Client::open(
              {.onWarning = [this](const std::string& text) { warnings.push_back(text); }})),
          subject(client.inDomain(links.querySubject())),
          first(daemon, subject),
          other(daemon, subject) {}

    static int number(RowStream& stream) {
        const auto row = stream.next();
        return row && *row ? (*row)->get<int>("n").value_or(-2) : -1;
    }

    // The member answers with its first packet, which is read and taken.
    void begin(RowStream& stream, Member& member) {
        member.hear();
        member.send(sent[0]);
        EXPECT_EQ(number(stream), 0);
        EXPECT_EQ(member.take(), 65U);
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
    std::size_t granted = first.take();
    EXPECT_EQ(granted, 65U);
    for (std::size_t next = 1; next < 130;) {
        for (; next < std::min<std::size_t>(granted, 130); ++next) first.send(sent[next]);
        if (next == 130) break;
        const std::size_t before = std::exchange(granted, first.take());
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
    begin(doubled, other);
    other.send(sent[2]);
    other.send(sent[2]);
    EXPECT_EQ(number(doubled), 2) << "what came after the hole";
    EXPECT_EQ(doubled.next().error().code, Errc::MixedAnswers);
    EXPECT_EQ(other.take(), 0U);
}

TEST_F(ConversationTest, IsEndedByAStreamOrAClientThatGoes) {
    auto cancelled = client.stream(links, "*");
    begin(cancelled, first);
    other.hear();
    std::thread reader([&] { EXPECT_EQ(cancelled.next().error().code, Errc::Ended); });
    cancelled.cancel();
    reader.join();
    EXPECT_EQ(first.take(), 0U);
    auto outlives = client.stream(links, "*");
    begin(outlives, other);
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
    begin(stream, first);
    first.send(packets(2)[1]);
    const auto asked = std::chrono::steady_clock::now();
    ASSERT_TRUE(eventually([&] { return std::chrono::steady_clock::now() > asked + 200ms; }));
    EXPECT_EQ(number(stream), 1);
    EXPECT_FALSE(*stream.next());
    EXPECT_EQ(here->query("Nobody", "*").error().code, Errc::TimedOut);
}

}  // namespace
}  // namespace kvx
