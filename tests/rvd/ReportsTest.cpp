// What the daemon answers about itself, at a real daemon.

#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"
#include "tests/support/Daemon.h"
#include "tests/support/RawClient.h"
#include "tests/support/Sanitizer.h"

namespace kvx::test {
namespace {

std::uint64_t numberIn(const RvMsg& message, const char* name) {
    RvDatum datum;
    std::uint64_t number = 0;
    if (message.get(name, datum).code() != 0 || datum.size() != sizeof number) return ~0ULL;
    std::memcpy(&number, datum.data(), sizeof number);
    return number;
}

std::string textIn(const RvMsg& message, const char* name) {
    char text[1'000] = "";
    (void)message.get(name, text, sizeof text);
    return text;
}

class Asker {
  public:
    static constexpr const char* kInbox = "_INBOX.ASKER";

    explicit Asker(std::uint16_t port, int receiveBuffer = 0)
        : client(RawClient::nameless(port, receiveBuffer)) {
        client.listen(kInbox);
        client.settle();
    }
    void ask(const char* about, const RvMsg& options = RvMsg()) {
        client.send(
            wire::buildData(encodedSubject(about), kInbox, 0, {RVMSG_MSG, 0, options.data()}));
    }
    // The parts of the next answer, each checked for its number, up to the last.
    std::vector<RvMsg> hear() {
        std::vector<RvMsg> parts;
        for (bool isLast = false; !isLast;) {
            const Received next = client.expectNext();
            if (next.subject != kInbox) {
                passed.push_back(next.text);
                continue;
            }
            RvMsg whole(const_cast<std::uint8_t*>(next.bytes.data()));
            RvMsg part;
            EXPECT_EQ(whole.get("data", part).code(), 0);
            parts.push_back(part);
            EXPECT_EQ(numberIn(parts.back(), "part"), parts.size());
            RvDatum last;
            isLast = part.get("last", last).code() == 0;
        }
        return parts;
    }
    std::vector<RvMsg> answer(const char* about, const RvMsg& options = RvMsg()) {
        ask(about, options);
        return hear();
    }
    // All rows of that name in the parts.
    static std::vector<RvMsg> rows(const std::vector<RvMsg>& parts, const std::string& name) {
        std::vector<RvMsg> found;
        for (const auto& part : parts) {
            RvMsgIterator iterator(part);
            while (const RvDatum* field = iterator.next()) {
                if (field->name() != name || field->type() != RVMSG_MSG) continue;
                found.emplace_back(static_cast<const RvMsg&>(*field));
            }
        }
        return found;
    }

    RawClient client;
    std::vector<std::string> passed;  // texts of other messages that came before an answer
};

class Asking : public testing::Test {
  protected:
    Daemon daemon;
};

RvMsg withSubject(const char* subject) {
    RvMsg options;
    options.append("subject", subject);
    return options;
}

TEST_F(Asking, IsToldHowTheDaemonIs) {
    Asker asker(daemon.port());
    const auto parts = asker.answer("_RVD.STATUS");
    ASSERT_EQ(parts.size(), 1U);
    EXPECT_NE(textIn(parts[0], "version"), "");
    EXPECT_EQ(numberIn(parts[0], "pid"), static_cast<std::uint64_t>(daemon.pid()));
    EXPECT_EQ(textIn(parts[0], "address"), daemon.text());
    EXPECT_EQ(numberIn(parts[0], "queue_limit"), 64ULL << 20U);
    EXPECT_EQ(numberIn(parts[0], "counters.sessions_open"), 1U);
    EXPECT_EQ(numberIn(parts[0], "counters.listens_open"), 1U);
    EXPECT_GT(numberIn(parts[0], "memory.listens"), 0U);
    EXPECT_LE(numberIn(parts[0], "memory.used"), numberIn(parts[0], "memory.limit"));
}

TEST_F(Asking, IsToldOfEverySessionOnceInNumberedParts) {
    std::vector<RawClient> others;
    for (int i = 0; i < 150; ++i) others.push_back(RawClient::session(daemon.port()));
    others[7].listen("A");
    others[7].publish("B", "text");
    others[7].settle();
    Asker asker(daemon.port());
    const auto parts = asker.answer("_RVD.SESSIONS");
    EXPECT_GT(parts.size(), 2U);
    std::set<std::uint64_t> numbers;
    int isMet = 0;
    for (const auto& session : Asker::rows(parts, "session")) {
        EXPECT_TRUE(numbers.insert(numberIn(session, "number")).second);
        if (textIn(session, "address") != "127.0.0.1:" + std::to_string(others[7].localPort())) {
            continue;
        }
        ++isMet;
        EXPECT_TRUE(textIn(session, "name").starts_with("RAW."));
        EXPECT_EQ(numberIn(session, "listens"), 1U);
        EXPECT_EQ(numberIn(session, "published"), 2U) << "the marker is one";
        EXPECT_EQ(numberIn(session, "delivered"), 1U);
    }
    EXPECT_EQ(isMet, 1);
    EXPECT_EQ(numbers.size(), others.size() + 1);
}

TEST_F(Asking, DoesNotWaitBehindItsOwnMessagesAndSeesWhoIsSlow) {
    Asker slow(daemon.port(), 8'192);
    slow.client.listen("FLOOD");
    slow.client.settle();
    RawClient sender = RawClient::session(daemon.port());
    const std::string text(100'000, 'x');
    for (int i = 0; i < 300; ++i) sender.publish("FLOOD", text);
    sender.settle();
    slow.ask("_RVD.SESSIONS");
    Asker other(daemon.port());
    std::vector<RvMsg> waiting;
    ASSERT_TRUE(eventually([&] {
        waiting.clear();
        for (const auto& session : Asker::rows(other.answer("_RVD.SESSIONS"), "session")) {
            if (numberIn(session, "waiting") != 0) waiting.push_back(session);
        }
        return waiting.size() == 1;
    }));
    EXPECT_EQ(numberIn(waiting[0], "matched"), numberIn(waiting[0], "delivered") +
                                                   numberIn(waiting[0], "waiting") +
                                                   numberIn(waiting[0], "dropped"));
    EXPECT_GE(Asker::rows(slow.hear(), "session").size(), 2U);
    EXPECT_LT(slow.passed.size(), 200U) << "the answer came behind them all";
}

TEST_F(Asking, IsToldWhoWouldGetAMessageByWhichListens) {
    Asker asker(daemon.port());
    RawClient one = RawClient::session(daemon.port());
    RawClient stranger = RawClient::session(daemon.port(), "other");
    for (const char* subject : {"A.B", "A.*", "A.*", "A.>", "B.>"}) one.listen(subject);
    for (int i = 0; i < 80; ++i) one.listen("A.*.X" + std::to_string(i));
    one.listen("*.B");
    one.settle();
    stranger.listen("A.B");
    stranger.settle();
    std::set<std::string> listens;
    for (const auto& match : Asker::rows(asker.answer("_RVD.TRACE", withSubject("A.B")), "match")) {
        char text[1'000];
        RvDatum listen;
        ASSERT_EQ(match.get("listen", listen).code(), 0);
        ASSERT_NE(rvSubject_ToText(text, sizeof text, listen.data()), nullptr);
        listens.insert(text + std::string(" x") + std::to_string(numberIn(match, "count")));
    }
    EXPECT_EQ(listens, (std::set<std::string>{"*.B x1", "A.* x2", "A.> x1", "A.B x1"}));
    EXPECT_TRUE(Asker::rows(asker.answer("_RVD.TRACE", withSubject("C")), "match").empty());
}

TEST_F(Asking, IsToldWhatFlows) {
    Asker asker(daemon.port());
    RawClient sender = RawClient::session(daemon.port());
    RawClient second = RawClient::session(daemon.port());
    RawClient listener = RawClient::session(daemon.port());
    listener.listen("PRICE.>");
    listener.settle();
    RvMsg price;
    price.append("price", 1.5);
    price.append("at", "rome");
    for (int i = 0; i < 30; ++i) {
        sender.send(
            wire::buildData(encodedSubject("PRICE.A"), nullptr, 0, {RVMSG_MSG, 0, price.data()}));
    }
    sender.publish("PRICE.A", "text");
    for (int i = 0; i < 10; ++i) second.publish("PRICE.B", "text");
    second.publish("PRICE.A", "text");
    for (RawClient* client : {&sender, &second}) client->settle();
    RvMsg options = withSubject("PRICE.>");
    options.append("fields", 1);
    const auto parts = asker.answer("_RVD.SUBJECTS", options);
    EXPECT_EQ(numberIn(parts[0], "every"), 1U) << "all are counted";
    const auto subjects = Asker::rows(parts, "subject");
    ASSERT_EQ(subjects.size(), 2U);
    EXPECT_EQ(numberIn(subjects[0], "messages"), 32U);
    EXPECT_EQ(numberIn(subjects[0], "senders"), 2U);
    EXPECT_EQ(numberIn(subjects[0], "listeners"), 1U);
    EXPECT_EQ(numberIn(subjects[1], "messages"), 10U);
    const auto shapes = Asker::rows(subjects, "shape");
    ASSERT_EQ(shapes.size(), 3U);
    EXPECT_EQ(numberIn(shapes[0], "messages"), 30U);
    RvMsg fields;
    ASSERT_EQ(shapes[0].get("fields", fields).code(), 0);
    RvDatum field;
    EXPECT_EQ(fields.get("price", field).code(), 0);
    EXPECT_EQ(field.type(), RVMSG_REAL);
    EXPECT_EQ(fields.get("at", field).code(), 0);
    EXPECT_EQ(field.type(), RVMSG_STRING);
    EXPECT_EQ(numberIn(shapes[1], "messages"), 2U);
    options.append("limit", 1);
    EXPECT_EQ(Asker::rows(asker.answer("_RVD.SUBJECTS", options), "subject").size(), 1U);
}

// A message of one field with that encoding, whether or not the format allows it.
ByteVector messageOf(const std::string& name, rvmsg_Type type, std::uint8_t size) {
    ByteVector bytes = bytesOf(RvMsg());
    bytes.push_back(static_cast<std::uint8_t>(name.size() + 1));
    bytes.insert(bytes.end(), name.begin(), name.end());
    bytes.insert(bytes.end(), {0, static_cast<std::uint8_t>(type), size});
    bytes.resize(bytes.size() + size, 7);
    storeBig32(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    return bytes;
}

// The daemon routes what it does not read; who asks for shapes pays for nobody's nonsense.
TEST_F(Asking, IsToldTheShapesOfAnyNonsense) {
    RawClient sender = RawClient::session(daemon.port());
    std::size_t sent = 0;
    const auto send = [&](const std::string& name, rvmsg_Type type, std::uint8_t size) {
        const ByteVector payload = messageOf(name, type, size);
        const auto subject = encodedSubject("ODD." + std::to_string(++sent));
        sender.send(wire::buildData(subject, nullptr, 0, {RVMSG_MSG, 0, payload.data()}));
    };
    for (rvmsg_Type type = 0; type <= RVMSG_REAL + 2; ++type) {
        for (const std::uint8_t size : {0, 1, 3, 16, 100}) {
            send("t" + std::to_string(type), type, size);
        }
    }
    send(std::string(200, 'n'), RVMSG_STRING, 2);
    send("a..b.", RVMSG_STRING, 2);
    send(std::string("a\0b", 3), RVMSG_UINT, 8);
    sender.settle();
    RvMsg options = withSubject("ODD.>");
    options.append("fields", 1);
    Asker asker(daemon.port());
    const auto subjects = Asker::rows(asker.answer("_RVD.SUBJECTS", options), "subject");
    ASSERT_EQ(subjects.size(), sent);
    EXPECT_EQ(Asker::rows(subjects, "shape").size(), sent);
}

// Has messages wait in the daemon for a long time against what it takes to send them, and takes the
// times from before the send to their receipt. Returns by how much what the daemon has measured is
// shorter, at worst; it is never longer.
double differenceOfDelays(std::uint16_t port, const std::string& name) {
    using Clock = std::chrono::steady_clock;
    constexpr std::size_t kMessages = 100;
    Asker reader(port, 8'192);
    reader.client.listen(name + ".>");
    reader.client.settle();
    Asker asker(port);
    const std::string pattern = name + ".*";
    const auto ask = [&] { return asker.answer("_RVD.LATENCY", withSubject(pattern.c_str())); };
    ask();
    RawClient sender = RawClient::session(port);
    const std::string text(100'000, 'x');
    std::vector<Clock::time_point> sent;
    for (std::size_t i = 0; i < kMessages; ++i) {
        sent.push_back(Clock::now());
        sender.publish(name + '.' + std::to_string(i), text);
    }
    sender.publish("OTHER", text);
    sender.settle();
    const auto pause = std::max<Clock::duration>(std::chrono::milliseconds(700),
                                                 10 * (Clock::now() - sent.front()));
    std::vector<double> measured;  // nanoseconds
    for (std::size_t i = 0; i < kMessages; ++i) {
        const auto end = Clock::now() + (i == 0 || i == 60 ? pause : Clock::duration::zero());
        while (Clock::now() < end) {
            ask();
            std::this_thread::sleep_until(std::min(end, Clock::now() + std::chrono::seconds(1)));
        }
        reader.client.expectNext();
        measured.push_back(
            std::chrono::duration<double, std::nano>(Clock::now() - sent[i]).count());
    }
    std::vector<RvMsg> parts;
    EXPECT_TRUE(eventually([&] {
        parts = ask();
        return numberIn(parts[0], "copies") == kMessages;
    }));
    std::uint64_t copies = 0;
    for (const auto& row : Asker::rows(parts, "bucket")) copies += numberIn(row, "copies");
    EXPECT_EQ(copies, kMessages);
    std::ranges::sort(measured);
    double worst = 0;
    for (const auto& [field, rank] :
         {std::pair("p50_ns", 49), {"p90_ns", 89}, {"p99_ns", 98}, {"max_ns", 99}}) {
        const double ends = measured[static_cast<std::size_t>(rank)];
        const auto daemon = static_cast<double>(numberIn(parts[0], field));
        EXPECT_LT(daemon, 1.05 * ends) << field;
        worst = std::max(worst, 1 - daemon / ends);
    }
    return worst;
}

// Once is enough: beside other work a receiver may get its time late.
TEST_F(Asking, IsToldTheDelaysThatTheTwoEndsMeasure) {
    const double most = kIsWatched ? 0.3 : 0.05;
    double difference = 1;
    for (int i = 0; i < 30 && difference > most; ++i) {
        difference = differenceOfDelays(daemon.port(), "WORK" + std::to_string(i));
    }
    EXPECT_LE(difference, most);
    Asker asker(daemon.port());
    EXPECT_GT(numberIn(asker.answer("_RVD.STATUS")[0], "latency.copies"), 0U);
}

TEST_F(Asking, HarmsNobodyWhateverIsAsked) {
    Asker asker(daemon.port(), 8'192);
    RvMsg strange;
    strange.append("subject", "");
    strange.append("limit", "many");
    strange.append("fields", "yes");
    EXPECT_EQ(asker.answer("_RVD.SUBJECTS", strange).size(), 1U);
    for (const char* reply : {"", ".", "A..B"}) {
        asker.client.send(wire::buildData(encodedSubject("_RVD.STATUS"), reply, 0, {}));
    }
    asker.ask("_RVD.TRACE");
    asker.ask("_RVD.LATENCY");
    asker.ask("_RVD.*");
    for (int i = 0; i < 20'000; ++i) asker.ask("_RVD.SESSIONS");
    RawClient witness = RawClient::session(daemon.port());
    witness.settle();
    asker.hear();
    Asker after(daemon.port());
    const auto status = after.answer("_RVD.STATUS");
    EXPECT_LT(numberIn(status[0], "memory.control"), 200'000U);
    EXPECT_GE(numberIn(status[0], "counters.messages_unreadable"), 5U);
}

}  // namespace
}  // namespace kvx::test
