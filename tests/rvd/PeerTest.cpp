// The protocol of one connection, driven by bytes and stepped time.

#include "rvd/Peer.h"

#include "rv/wire/ControlMessage.h"
#include "rv/wire/Negotiation.h"
#include "tests/support/RawClient.h"

namespace kvx::rvd {
namespace {

using Stream = std::vector<std::uint8_t>;

// Writes down what the peer asks for, one word a call.
class Recorder : public PeerActions {
  public:
    void send(wire::Bytes bytes) override { sent.insert(sent.end(), bytes.begin(), bytes.end()); }
    void join(std::string_view service, std::string_view network) override {
        space = std::string(service) + '/' + std::string(network);
        note("join:" + space);
    }
    bool isIn(std::string_view service, std::string_view network) override {
        return space == std::string(service) + '/' + std::string(network);
    }
    bool listen(SubjectView subject) override {
        note("listen:" + subject.text());
        return mayListen;
    }
    void cancel(SubjectView subject) override { note("cancel:" + subject.text()); }
    void publish(SubjectView subject, const PayloadRef& message) override {
        note("publish:" + subject.text());
        published.emplace_back(message->bytes().begin(), message->bytes().end());
    }
    bool mayGoOn() override { return ++asked % 2 == 0; }
    void close(CloseReason reason) override { note(std::string("close:") + textOf(reason)); }

    Stream take() { return std::exchange(sent, {}); }
    std::string takeLog() { return std::exchange(log, {}); }

    Stream sent;
    std::string log;
    std::string space;
    std::vector<Stream> published;
    bool mayListen = true;
    int asked = 0;

  private:
    void note(const std::string& word) { log += word + ' '; }
};

Stream control(const char* type, const char* subject) {
    const Stream encoded = test::encodedSubject(subject);
    return test::bytesOf(*type == 'L' ? wire::buildListen(encoded, nullptr, 0)
                                      : wire::buildCancel(encoded, 0));
}

Stream init(const char* session, const char* service = "7500", const char* network = "") {
    return test::bytesOf(wire::buildInit({"joe", session, service, network, nullptr, {}}));
}

// Every test runs twice: the peer is fed whole pieces, and byte by byte; its turn is over after
// every message.
class PeerProtocol : public testing::TestWithParam<std::size_t> {
  protected:
    PeerProtocol() { restart(); }
    void feed(wire::Bytes bytes) {
        for (std::size_t at = 0; at < bytes.size(); at += GetParam()) {
            const auto part = bytes.subspan(at, std::min(GetParam(), bytes.size() - at));
            const Stream chunk(part.begin(), part.end());
            std::size_t left = chunk.size();
            while (left > 0) left = peer->receive(wire::Bytes(chunk).last(left), now);
        }
    }
    void restart() {
        recorder.takeLog();
        recorder.take();
        peer.emplace(PeerAddress{0x0100007F, 0x1234}, recorder, counters);
    }
    void greet(std::uint32_t version, std::uint32_t first = 0) {
        peer->start(now);
        EXPECT_EQ(recorder.take(), (Stream{0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0}));
        feed(wire::encode(wire::Greeting{first, version, 1}));
    }
    wire::ParameterBlock takeBlock() {
        const Stream bytes = recorder.take();
        EXPECT_EQ(bytes.size(), wire::kParameterBlockSize);
        wire::ParameterBytes block{};
        std::copy(bytes.begin(), bytes.end(), block.begin());
        return wire::decodeParameters(block);
    }
    void negotiate() {
        greet(wire::kProtocolV4);
        feed(wire::encode(wire::clientStep(takeBlock()).block));
        EXPECT_EQ(takeBlock().head, wire::kAccept);
    }
    void open() {
        negotiate();
        feed(init(nullptr));
        feed(init("NAME.1"));
        EXPECT_EQ(recorder.takeLog(), "join:7500/ ");
        recorder.take();
        ASSERT_EQ(peer->state(), PeerState::Open);
    }
    void pass(platform::Milliseconds time) {
        now += time;
        peer->tick(now);
    }

    platform::Milliseconds now = 1'000;
    Counters counters;
    Recorder recorder;
    std::optional<Peer> peer;
};
INSTANTIATE_TEST_SUITE_P(Feeding, PeerProtocol, testing::Values(1, 1 << 20),
                         [](const auto& test) { return test.param == 1 ? "ByByte" : "Whole"; });

TEST_P(PeerProtocol, RefusesOtherVersionsAndOtherFirstWords) {
    greet(5);
    EXPECT_EQ(recorder.takeLog(), "close:bad greeting ");
    restart();
    greet(4, 1);
    EXPECT_EQ(recorder.takeLog(), "close:bad greeting ");
}

TEST_P(PeerProtocol, ProposesAndRefusesWhateverDiffers) {
    const std::function<void(wire::ParameterBlock&)> changes[] = {
        [](auto& block) { block.head = wire::kPropose; },
        [](auto& block) { block.head = wire::kRefuse; },
        [](auto& block) { block.queueType = 3; },
        [](auto& block) { block.variant = 0; },
        [](auto& block) { block.firstLimit = 0x3FFFFFF; },
        [](auto& block) { block.secondLimit = 0; },
    };
    for (const auto& change : changes) {
        restart();
        greet(4);
        const wire::ParameterBlock proposal = takeBlock();
        EXPECT_EQ(proposal, (wire::ParameterBlock{2, 2, 0, 0, 1, 0, 0x4000000, 0x4000000}));
        wire::ParameterBlock answer = wire::clientStep(proposal).block;
        change(answer);
        feed(wire::encode(answer));
        EXPECT_EQ(takeBlock().head, wire::kRefuse);
        EXPECT_EQ(recorder.log, "close:no agreement on the link's parameters ");
    }
}

TEST_P(PeerProtocol, AnswersTheFirstInitWithTheClientsAddressAndNoLaterOne) {
    negotiate();
    feed(init(nullptr));
    const wire::Reply reply = wire::readReply(recorder.take());
    EXPECT_EQ(reply.code, 0);
    EXPECT_EQ(reply.ipAddress, 0x0100007FU);
    EXPECT_EQ(reply.ipPort, 0x1234);
    feed(control("L", "A.B"));
    feed(init("NAME.1"));
    feed(init(nullptr, "7501"));
    feed(test::bytesOf(wire::buildReply(1, 2)));
    EXPECT_TRUE(recorder.sent.empty());
    EXPECT_EQ(recorder.log, "join:7500/ listen:A.B ");
    EXPECT_EQ(counters[Counter::MessagesUnreadable], 1U);
}

TEST_P(PeerProtocol, AnswersAnInitWithoutServiceOrNetworkWithAnError) {
    negotiate();
    RvMsg message;
    message.append("mtype", "I");
    message.append("network", 1);
    feed(test::bytesOf(message));
    EXPECT_EQ(wire::readReply(recorder.take()).code, 16);
    message.append("service", "");
    feed(test::bytesOf(message));
    EXPECT_EQ(wire::readReply(recorder.take()).code, 17);
    EXPECT_EQ(recorder.log, "");
}

TEST_P(PeerProtocol, AllowsNothingElseNorMuchNorLongBeforeTheInit) {
    negotiate();
    pass(9'999);
    feed(wire::kKeepaliveBlock);  // talking does not prolong it
    EXPECT_EQ(recorder.log, "");
    pass(1);
    EXPECT_EQ(recorder.takeLog(), "close:silent for too long ");
    restart();
    negotiate();
    feed(control("L", "A"));
    EXPECT_EQ(recorder.takeLog(), "close:a message before the init message ");
    restart();
    negotiate();
    for (int i = 0; i < 600 && recorder.log.empty(); ++i) feed(wire::kKeepaliveBlock);
    EXPECT_EQ(recorder.takeLog(), "close:too many bytes before the init message ");
    restart();
    negotiate();
    RvMsg message;
    message.append("mtype", "I");
    message.append("service", std::string(4'500, 'x').c_str());
    message.append("network", "");
    feed(test::bytesOf(message));
    EXPECT_EQ(recorder.takeLog(), "close:too many bytes before the init message ");
}

TEST_P(PeerProtocol, PassesOnListensCancelsAndSoundDataInOrder) {
    open();
    const Stream data = test::dataMessage("A.B", "hello");
    Stream unsound = test::dataMessage("AA.BB", "x");
    unsound[8 + 11 + 7 + 2 + 1] = 0;  // a zero inside the first element
    Stream stream;
    for (const Stream& message :
         {control("L", "A.*"), data, test::dataMessage("_RV.WARN.SYSTEM.X", ""),
          test::dataMessage("_RV.INFO.SYSTEM", ""), test::dataMessage("_RV.*.SYSTEM", ""),
          test::dataMessage("_RV.>", ""), unsound, test::dataMessage("_RV.WARN.APP.X", ""),
          control("C", "A.*")}) {
        stream.insert(stream.end(), message.begin(), message.end());
    }
    feed(stream);
    EXPECT_EQ(recorder.log, "listen:A.* publish:A.B publish:_RV.WARN.APP.X cancel:A.* ");
    EXPECT_EQ(recorder.published.at(0), data);
    EXPECT_EQ(counters[Counter::MessagesReserved], 4U);
    EXPECT_EQ(counters[Counter::MessagesUnreadable], 1U);
}

TEST_P(PeerProtocol, AnswersACloseNoticeAndEndsASessionThatListensToTooMuch) {
    open();
    feed(wire::kCloseBlock);
    EXPECT_EQ(recorder.take(), Stream(8, 0));
    EXPECT_EQ(recorder.takeLog(), "close:closed by the peer ");
    restart();
    open();
    recorder.mayListen = false;
    feed(control("L", "A"));
    EXPECT_EQ(recorder.log, "listen:A close:more than 262144 listens ");
}

TEST_P(PeerProtocol, ProbesASilentPeerOnceAndClosesItAfterTenMinutes) {
    open();
    pass(179'999);
    EXPECT_TRUE(recorder.take().empty());
    pass(1);
    EXPECT_EQ(recorder.take(), Stream(wire::kKeepaliveBlock.begin(), wire::kKeepaliveBlock.end()));
    pass(180'000);
    EXPECT_TRUE(recorder.take().empty());
    feed(wire::kKeepaliveBlock);  // heard again: the silence starts anew
    EXPECT_TRUE(recorder.take().empty());
    pass(180'000);
    EXPECT_EQ(recorder.take().size(), 8U);
    pass(400'000);
    peer->tookMessages(now);  // a listener need not talk: taking what it is sent is a sign of life
    pass(599'999);
    EXPECT_TRUE(recorder.take().empty());
    EXPECT_EQ(recorder.log, "");
    pass(1);
    EXPECT_EQ(recorder.log, "close:silent for too long ");
}

}  // namespace
}  // namespace kvx::rvd
