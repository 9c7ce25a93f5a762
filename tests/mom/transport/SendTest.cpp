// Batches through an engine's queue and on a sender.

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekSendQueueItem.h"
#include "tests/mom/transport/Batches.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"
#include "tests/support/OutputHook.h"

namespace kvx::test {
namespace {

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
