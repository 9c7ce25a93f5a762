// Packets byte for byte, batches from record to record and through an engine's queue, and what
// hostile packets yield.

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekSendQueueItem.h"
#include "mom/transport/CVekDeflater.h"
#include "mom/transport/CVekInflater.h"
#include "rv/message/RvMsg.h"
#include "rv/message/WireReader.h"
#include "tests/mom/transport/Batches.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"
#include "tests/support/OutputHook.h"

namespace kvx::test {
namespace {

std::string word(std::uint32_t value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift);
    return bytes;
}

// The header of the only packet of a batch.
std::string header(int version, int kind, int extension = 0, int status = 0) {
    return word(0) + word(1) + word(0) + word(1) +
           word(static_cast<std::uint32_t>(version << 16 | kind)) +
           word(static_cast<std::uint32_t>(extension << 16 | status));
}

std::string record(const std::string& bytes) {
    return word(static_cast<std::uint32_t>(bytes.size())) + bytes;
}

std::string zlibStream(const std::string& text) {
    CVekDeflater deflater;
    deflater.RDAddChunk(text.data(), static_cast<int>(text.size()));
    deflater.RDFinishCompression();
    return {static_cast<const char*>(deflater.RDCompressedData()),
            static_cast<std::size_t>(deflater.RDCompressedLength())};
}

Texts encoded(const Texts& records, EVekTransHdr version) {
    CVekTransport transport(nullptr);
    for (const auto& one : records) {
        addRecord(transport, one);
        transport.RTPreparePayloads(version);
    }
    EXPECT_EQ(transport.RTCreatePackets(version, true), 1);
    return packetsOf(transport);
}

std::uint32_t wordAt(const std::string& packet, std::size_t at) {
    return loadBig32(reinterpret_cast<const std::uint8_t*>(packet.data() + at));
}

// (sequence number, packets in the batch, version and kind) of each packet.
std::vector<std::vector<std::uint32_t>> shapeOf(const Texts& packets) {
    std::vector<std::vector<std::uint32_t>> shape;
    for (const auto& packet : packets) {
        shape.push_back({wordAt(packet, 4), wordAt(packet, 12), wordAt(packet, 16)});
    }
    return shape;
}

const Report kDefect{-220494, "CVekTransport", 0, "CVekTransport::RTDecodes"};

TEST(TransportPackets, StandByteForByteOnTheWire) {
    EXPECT_EQ(encoded({"ABC"}, VEK_TRANS_V0),
              Texts{word(0) + word(1) + word(0) + word(1) + word(0) + word(0) + word(3) + "ABC"});
    EXPECT_EQ(encoded({"A", "", "BC"}, VEK_TRANS_V1),
              Texts{header(1, 0) + record("A") + record("") + record("BC")});
    CVekTransport nil(nullptr);
    nil.RTSetError(STORE_ZERO_MATCHES);
    EXPECT_EQ(nil.RTNilResults(), 1);
    EXPECT_EQ(nil.RTDone(), TRUE);
    EXPECT_EQ(packetsOf(nil), Texts{header(1, 0, 0, 8) + word(0)});

    std::string plain;
    for (const auto& one : numbered(11)) plain += record(one);
    const std::string packet = encoded(numbered(11), VEK_TRANS_V1).at(0);
    EXPECT_EQ(packet.substr(0, 28), header(1, 1) + word(static_cast<std::uint32_t>(plain.size())));
    std::string inflated(plain.size() + 1, '\0');
    CVekInflater byZlib(packet.data() + 28, static_cast<int>(packet.size() - 28));
    byZlib.RIInflateChunk(inflated.data(), static_cast<int>(inflated.size()));
    EXPECT_EQ(byZlib.RIIsDone(), TRUE);
    EXPECT_EQ(inflated.substr(0, plain.size()), plain);
}

TEST(TransportPackets, AreAsManyAsTheVersionAndTheRecordsAskFor) {
    using Shape = std::vector<std::vector<std::uint32_t>>;
    constexpr std::uint32_t kPlainV1 = 0x10000;
    constexpr std::uint32_t kCompressedV1 = 0x10001;
    EXPECT_EQ(shapeOf(encoded(numbered(3), VEK_TRANS_V0)),
              (Shape{{1, 3, 0}, {2, 3, 0}, {3, 3, 0}}));
    for (const auto& [count, shape] : std::initializer_list<std::pair<int, Shape>>{
             {0, {}},
             {10, {{1, 1, kPlainV1}}},
             {11, {{1, 1, kCompressedV1}}},
             {100, {{1, 1, kCompressedV1}}},
             {105, {{1, 2, kCompressedV1}, {2, 2, kPlainV1}}}}) {
        EXPECT_EQ(shapeOf(encoded(numbered(count), VEK_TRANS_V1)), shape) << count;
    }
    CVekTransport unprepared(nullptr);
    for (const auto& one : numbered(250)) addRecord(unprepared, one);
    unprepared.RTCreatePackets(VEK_TRANS_V1, true);
    const Texts packets = packetsOf(unprepared);
    EXPECT_EQ(shapeOf(packets),
              (Shape{{1, 3, kCompressedV1}, {2, 3, kCompressedV1}, {3, 3, kCompressedV1}}));
    EXPECT_EQ(decoded({packets[0]}).size(), 100U);
    EXPECT_EQ(decoded({packets[2]}).size(), 50U);
    EXPECT_EQ(wordAt(packets[2], 24), 50U * (4 + 10));
}

TEST(TransportPackets, GiveBackEveryRecordOfEveryBatchSize) {
    for (const EVekTransHdr version : {VEK_TRANS_V0, VEK_TRANS_V1}) {
        for (const int count : {1, 2, 9, 10, 11, 99, 100, 101, 111, 200, 299}) {
            EXPECT_EQ(decoded(encoded(numbered(count), version)), numbered(count))
                << version << " " << count;
        }
    }
    const Texts large = {std::string(100000, 'x'), std::string(1, '\0'), std::string(70000, 'y')};
    EXPECT_EQ(decoded(encoded(large, VEK_TRANS_V1)), large);
}

TEST(TransportPackets, MayBePreparedInSeveralTransportsAndTwiceInOne) {
    const Texts records = numbered(105);
    CVekTransport first(nullptr);
    CVekTransport second(nullptr);
    CVekTransport whole(nullptr);
    for (int i = 0; i < 105; ++i) addRecord(i < 100 ? first : second, records[i]);
    first.RTPreparePayloads(VEK_TRANS_V1);
    whole.RTTakePayloads(first, VEK_TRANS_V1);
    whole.RTTakePayloads(second, VEK_TRANS_V1);
    whole.RTTakePayloads(whole, VEK_TRANS_V1);
    EXPECT_EQ(whole.RTCreatePackets(VEK_TRANS_V1, true), 1);
    EXPECT_EQ(packetsOf(whole), encoded(records, VEK_TRANS_V1));
    EXPECT_EQ(second.RTCreatePackets(VEK_TRANS_V1, true), 1);
    EXPECT_EQ(packetsOf(second), Texts());

    CVekTransport transport(nullptr);  // keeps records that are not consumed
    for (const auto& one : numbered(12)) addRecord(transport, one);
    transport.RTCreatePackets(VEK_TRANS_V1, false);
    const Texts packets = packetsOf(transport);
    transport.RTCreatePackets(VEK_TRANS_V1, true);
    EXPECT_EQ(packetsOf(transport), packets);
    transport.RTCreatePackets(VEK_TRANS_V1, true);
    EXPECT_EQ(packetsOf(transport), Texts{});
}

TEST(Transport, TakesRecordsAndRefusesWhatIsNone) {
    CVekTransport transport(nullptr);
    EXPECT_EQ(transport.RTAddRecord(nullptr), -220402);
    CVekAtom* none = nullptr;
    EXPECT_EQ(transport.RTTakeROMP(&none), -220402);
    CVekAtom text("text");
    CVekAtom* notBytes = &text;
    EXPECT_EQ(transport.RTTakeROMP(&notBytes), -220532);
    EXPECT_EQ(notBytes, &text);
    EXPECT_EQ(transport.RTAddMessage(static_cast<CVekAtom*>(nullptr)), -220402);
    EXPECT_EQ(transport.RTAddMessage(&text), -220402);
    EXPECT_EQ(transport.RTAddMessage(static_cast<RvMsg*>(nullptr)), 1);
    CVekBaseRecord record;
    record.RRAddOrSetValue("name", new CVekAtom("value"));
    EXPECT_EQ(transport.RTAddRecord(&record), 1);
    transport.RTCreatePackets(VEK_TRANS_V1, true);
    EXPECT_EQ(decoded(packetsOf(transport)), Texts{"\x91\x92\xa4name\xa5value"});
}

TEST(Transport, IsDoneWhenTheAnnouncedPacketsAreHere) {
    CVekTransport transport(nullptr);
    EXPECT_EQ(transport.RTDone(), TRUE);
    const Texts packets = encoded(numbered(3), VEK_TRANS_V0);
    for (const int i : {2, 0, 1}) {
        receive(transport, packets[static_cast<std::size_t>(i)]);
        EXPECT_EQ(transport.RTDone(), i == 1 ? TRUE : FALSE);
    }
    EXPECT_EQ(recordsOf(transport), (Texts{"record 2", "record 0", "record 1"}));
    EXPECT_EQ(recordsOf(transport).size(), 3U);
    EXPECT_EQ(transport.RTPurge(), 1);
    EXPECT_EQ(transport.RTDone(), TRUE);
    EXPECT_EQ(recordsOf(transport), Texts{});
}

TEST(Transport, AcceptsTheOneOpaqueFieldOfAMessage) {
    ErrorRecorder errors;
    const std::string packet = header(0, 0) + record("ABC");
    CVekTransport transport(nullptr);
    RvMsg empty(0UL);
    EXPECT_EQ(transport.RTAddMessage(&empty), 1);
    RvMsg text(0UL);
    text.append("a", "text");
    EXPECT_EQ(transport.RTAddMessage(&text), -220494);
    RvMsg mixed(0UL);
    mixed.append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(packet.size()), packet.data());
    mixed.append("b", "text");
    EXPECT_EQ(transport.RTAddMessage(&mixed), -220494);
    const Report refused{-220494, "CVekTransport", 0, "CVekTransport::RTDecodeMessage"};
    EXPECT_EQ(errors.take(), Reports(2, refused));
    EXPECT_EQ(recordsOf(transport), Texts{});

    RvMsg several(0UL);
    several.append("a", RVMSG_OPAQUE, 3, "xyz");
    several.append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(packet.size()), packet.data());
    EXPECT_EQ(transport.RTAddMessage(&several), 1);
    EXPECT_EQ(transport.RTDone(), TRUE);
    EXPECT_EQ(recordsOf(transport), Texts{"ABC"});
    EXPECT_TRUE(errors.take().empty());
}

TEST(TransportHostileBytes, YieldTheRecordsBeforeTheDefectAndOneReport) {
    const std::string good = record("good");
    const std::string stream = zlibStream(good + record("more"));
    const auto compressed = [&](std::uint32_t length) {
        return header(1, 1) + word(length) + stream;
    };
    struct Case {
        const char* what;
        std::string packet;
        Texts records;
        bool defective;
    };
    const std::vector<Case> cases = {
        {"shorter than a header", header(1, 0).substr(1), {}, true},
        {"empty", "", {}, true},
        {"record past the end", header(1, 0) + good + word(5) + "four", {"good"}, true},
        {"length without a record", header(1, 0) + good + word(1), {"good"}, true},
        {"half a length", header(1, 0) + good + "abc", {"good"}, true},
        {"largest length", header(1, 0) + good + word(0x7FFFFFFF) + "x", {"good"}, true},
        {"negative and empty", header(0, 0) + word(0xFFFFFFFF) + word(0) + good, {"good"}, false},
        {"extension", header(1, 0, 3) + "ext" + good, {"good"}, false},
        {"extension to the end", header(1, 0, 3) + "ext", {}, false},
        {"extension past the end", header(1, 0, 9) + "ext", {}, true},
        {"other versions and kinds", header(7, 9) + good, {"good"}, false},
        {"compressed under version 0", header(0, 1) + good, {"good"}, false},
        {"compressed", compressed(16), {"good", "more"}, false},
        {"compressed, more than announced", compressed(8), {"good"}, false},
        {"compressed, less than announced", compressed(17), {"good", "more"}, true},
        {"compressed without a length", header(1, 1) + "abc", {}, true},
        {"implausible length", compressed(1032 * 100), {}, true},
        {"length above the limit", compressed((256U << 20) + 1), {}, true},
        {"negative length", compressed(0x80000000), {}, true},
    };
    for (const Case& one : cases) {
        ErrorRecorder errors;
        EXPECT_EQ(decoded(Texts{one.packet, header(1, 0) + record("next")}).back(), "next")
            << one.what;
        EXPECT_EQ(errors.take(), Reports(one.defective ? 1 : 0, kDefect)) << one.what;
        EXPECT_EQ(decoded({one.packet}), one.records) << one.what;
    }
}

TEST(TransportHostileBytes, YieldALimitedNumberOfRecordsFromACompressedPacketNoneFromABrokenOne) {
    constexpr std::size_t kMost = 65536;
    std::string payload;
    for (std::size_t i = 0; i < kMost; ++i) payload += record("x");
    const auto recordsIn = [](const std::string& bytes) {
        const auto size = static_cast<std::uint32_t>(bytes.size());
        return decoded({header(1, 1) + word(size) + zlibStream(bytes)}).size();
    };
    ErrorRecorder errors;
    EXPECT_EQ(recordsIn(payload + word(0)), kMost);
    EXPECT_TRUE(errors.take().empty());
    EXPECT_EQ(recordsIn(payload + word(0) + record("y")), kMost);
    EXPECT_EQ(errors.take(), std::vector{kDefect});
    std::string stream = zlibStream(record(std::string(200, 'x')));
    stream[4] = static_cast<char>(stream[4] ^ 0x7F);
    decoded({header(1, 1) + word(204) + stream});
    const auto reports = errors.take();
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_EQ(reports[0].file, "CVekInflater");
    EXPECT_EQ(reports[1], kDefect);
}

TEST(TransportHostileBytes, LeaveTheExpectedCountToAWholePacketAndReserveLittle) {
    ErrorRecorder errors;
    CVekTransport transport(nullptr);
    transport.RTSetError(STORE_NO_INDEX);
    receive(transport, "short");
    EXPECT_EQ(recordsOf(transport), Texts{});
    EXPECT_EQ(transport.RTError(), STORE_NO_INDEX);
    EXPECT_EQ(errors.take(), std::vector{kDefect});
    receive(transport, header(1, 0).replace(8, 8, word(0) + word(2)));
    EXPECT_EQ(transport.RTDone(), TRUE);
    transport.RTPurge();
    receive(transport, header(1, 0).replace(8, 8, word(5) + word(0xFFFFFFFF)));
    EXPECT_EQ(transport.RTDone(), FALSE);
}

TEST(Transport, PutsItsStatusIntoWords) {
    const auto printed = [](int status) {
        const std::unique_ptr<char, decltype(&std::free)> line(
            CVekTransport::RTPrintError(static_cast<EVekStoreErrorStatus>(status), "query"),
            &std::free);
        return std::string(line.get());
    };
    EXPECT_EQ(printed(0), "( query Transaction complete )");
    EXPECT_EQ(printed(13), "( query Update request failed )");
    ErrorRecorder errors;
    EXPECT_EQ(printed(14) + printed(-1), "( query )( query )");
    EXPECT_EQ(errors.take(),
              std::vector(2, Report{-220439, "CVekTransport", 0,
                                    "Undefined error string for StoreError event."}));
    CVekTransport transport(nullptr);
    transport.RTSetError(STORE_DUPLICATE_KEY);
    EXPECT_EQ(outputOf([&] { transport.RTPrintError("x"); }),
              "( x Duplicate key error on insertion )\n");
}

// Batches through an engine's queue and on a sender.

void fill(CVekTransport& transport, int count) {
    for (const std::string& record : numbered(count)) {
        addRecord(transport, record);
        transport.RTPreparePayloads(VEK_TRANS_V1);
    }
    transport.RTSetError(STORE_NO_INDEX);
    EXPECT_EQ(transport.RTCreatePackets(VEK_TRANS_V1, true), 1);
}

// What a send runs may use the transport for something else, and end it.
TEST(TransportSending, GoesOnWhenTheTransportIsPurgedOrDestroyedMeanwhile) {
    const Home home("-");
    CVekEngine engine(1, "GROUP", "TEST", SERV_UNKNOWN);
    int status = 0;
    const std::unique_ptr<RvSender> sender(engine.RRNNewSender(&status, "TRANSPORT.TEST", nullptr));
    CVekTransport direct(nullptr);
    EXPECT_EQ(direct.RTSetDestination(sender.get()), 1);
    fill(direct, 3);
    EXPECT_EQ(outputOf([&] {
                  const DebugLevel level(-1);
                  EXPECT_EQ(direct.RTSendAll(true), 1);
              }),
              "-----------------if not in main thread this is NOT safe!---------\n");
    for (const bool destroys : {false, true}) {
        auto transport = std::make_unique<CVekTransport>(nullptr);
        transport->RTSetDestination(sender.get());
        for (const auto& record : numbered(3)) addRecord(*transport, record);
        transport->RTCreatePackets(VEK_TRANS_V0, true);
        int pieces = 0;
        const DebugLevel level(1);
        const OutputHook hook([&] {
            if (pieces++ > 0) return;
            destroys ? transport.reset() : static_cast<void>(transport->RTPurge());
        });
        EXPECT_EQ(transport->RTSendAll(false), 1);
        EXPECT_EQ(pieces, 3);
    }
}

TEST(TransportSending, PutsABatchAtTheEndOfTheQueueThatItIsAskedFor) {
    const Home home("-");
    CVekEngine engine(1, "GROUP", "TEST", SERV_UNKNOWN);
    const auto queue = [&](const char* subject, bool front) {
        CVekTransport transport(&engine);
        fill(transport, 1);
        EXPECT_EQ(transport.RTSendAll(front), -220552);
        EXPECT_EQ(transport.RTSetDestinationOnSubject(subject), 1);
        EXPECT_EQ(front ? transport.RTSendHB() : transport.RTSendAll(false), 1);
        EXPECT_EQ(transport.RTSetDestinationOnSubject(nullptr), 1);
        EXPECT_EQ(transport.RTSendAll(false), -220552);
    };
    CVekTransport queued(&engine);
    fill(queued, 250);
    EXPECT_EQ(queued.RTSetDestination("TRANSPORT"), 1);
    EXPECT_EQ(queued.RTSendAll(false), 1);
    EXPECT_EQ(queued.RTDone(), TRUE);
    EXPECT_EQ(engine.RESendQueueLength(), 3);
    CVekTransport received(nullptr);
    while (const auto item = std::unique_ptr<CVekSendQueueItem>(engine.RENextSendItem())) {
        EXPECT_STREQ(item->m_subject, "TRANSPORT.TEST");
        RvMsg message(const_cast<rvmsg_Msg>(item->m_datum->data()));
        EXPECT_EQ(received.RTAddMessage(&message), 1);
    }
    EXPECT_EQ(recordsOf(received), numbered(250));
    EXPECT_EQ(received.RTError(), STORE_NO_INDEX);

    queue("first", false);
    queue("second", false);
    queue("urgent", true);
    EXPECT_EQ(engine.RESendQueueLength(), 3);
    for (const char* subject : {"urgent", "first", "second"}) {
        EXPECT_STREQ(std::unique_ptr<CVekSendQueueItem>(engine.RENextSendItem())->m_subject,
                     subject);
    }
}

// A batch without one of its packets would keep its receiver waiting.
TEST(TransportSending, SendsNothingOfABatchWithAPacketThatNoMessageHolds) {
    const Home home("-");
    CVekEngine engine(1, "GROUP", "TEST", SERV_UNKNOWN);
    CVekTransport transport(&engine);
    addRecord(transport, "small");
    addRecord(transport, std::string(64U << 20U, 'x'));
    EXPECT_EQ(transport.RTCreatePackets(VEK_TRANS_V0, true), 1);
    EXPECT_EQ(transport.RTSetDestination("TRANSPORT"), 1);
    ErrorRecorder errors;
    EXPECT_EQ(transport.RTSendAll(false), -220552);
    EXPECT_EQ(errors.take().size(), 1U);
    EXPECT_EQ(engine.RESendQueueLength(), 0);
    EXPECT_EQ(packetsOf(transport).size(), 2U);
}

}  // namespace
}  // namespace kvx::test
