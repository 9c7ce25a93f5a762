// Batches over a real daemon, through an engine's queue and on a sender.

#include <utility>

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekSendQueueItem.h"
#include "tests/mom/transport/Batches.h"
#include "tests/support/Daemon.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"
#include "tests/support/OutputHook.h"

namespace kvx::test {
namespace {

// Receives one batch and then leaves the main loop.
struct Receiver : RvDataCallback {
    explicit Receiver(CVekRvNet& receiving) : net(receiving) {}
    void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
        RvMsg message(static_cast<const RvMsg&>(data));
        EXPECT_EQ(transport.RTAddMessage(&message), 1);
        if (transport.RTDone() != TRUE) return;
        records = recordsOf(transport);
        status = transport.RTError();
        transport.RTPurge();
        net.RRNStopLoop();
    }
    CVekRvNet& net;
    CVekTransport transport{nullptr};
    Texts records;
    EVekStoreErrorStatus status = STORE_COMPLETE;
};

std::unique_ptr<RvSender> senderOf(CVekEngine& engine) {
    int status = 0;
    return std::unique_ptr<RvSender>(engine.RRNNewSender(&status, "TRANSPORT.TEST", nullptr));
}

void fill(CVekTransport& transport, int count) {
    for (const std::string& record : numbered(count)) {
        addRecord(transport, record);
        transport.RTPreparePayloads(VEK_TRANS_V1);
    }
    transport.RTSetError(STORE_NO_INDEX);
    EXPECT_EQ(transport.RTCreatePackets(VEK_TRANS_V1, true), 1);
}

TEST(TransportSending, CarriesBatchesThroughTheEnginesQueueAndOnASender) {
    const Daemon daemon;
    const Home home(daemon.text());
    CVekEngine engine(1, "GROUP", "TEST", SERV_UNKNOWN);
    Receiver receiver(engine);
    ASSERT_EQ(engine.RRNAddService("TRANSPORT", &receiver), 1);
    CVekTransport queued(&engine);
    fill(queued, 250);
    EXPECT_EQ(queued.RTSetDestination("TRANSPORT"), 1);
    EXPECT_EQ(queued.RTSendAll(false), 1);
    EXPECT_EQ(queued.RTDone(), TRUE);
    EXPECT_EQ(engine.RESendQueueLength(), 3);
    engine.REDoIt();
    EXPECT_EQ(std::exchange(receiver.records, {}), numbered(250));
    EXPECT_EQ(receiver.status, STORE_NO_INDEX);

    const std::unique_ptr<RvSender> sender = senderOf(engine);
    CVekTransport direct(nullptr);
    EXPECT_EQ(direct.RTSetDestination(sender.get()), 1);
    fill(direct, 3);
    const std::string warning = outputOf([&] {
        const DebugLevel level(-1);
        EXPECT_EQ(direct.RTSendAll(true), 1);
    });
    EXPECT_EQ(warning, "-----------------if not in main thread this is NOT safe!---------\n");
    engine.RRNDoIt();
    EXPECT_EQ(receiver.records, numbered(3));
}

// What a send runs may use the transport for something else, and end it.
TEST(TransportSending, GoesOnWhenTheTransportIsPurgedOrDestroyedMeanwhile) {
    const Home home("-");
    CVekEngine engine(1, "GROUP", "TEST", SERV_UNKNOWN);
    const std::unique_ptr<RvSender> sender = senderOf(engine);
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

TEST(TransportSending, PutsPacketsAtTheEndOfTheQueueThatItIsAskedFor) {
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
    queue("first", false);
    queue("second", false);
    queue("urgent", true);
    EXPECT_EQ(engine.RESendQueueLength(), 3);
    for (const char* subject : {"urgent", "first", "second"}) {
        EXPECT_STREQ(std::unique_ptr<CVekSendQueueItem>(engine.RENextSendItem())->m_subject,
                     subject);
    }
}

}  // namespace
}  // namespace kvx::test
