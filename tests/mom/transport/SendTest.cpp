// Batches over a real daemon, through an engine's queue and on a sender.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekSendQueueItem.h"
#include "mom/transport/CVekTransport.h"
#include "tests/support/Daemon.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/HomeDirectory.h"

using kvx::test::Daemon;
using kvx::test::DebugLevel;
using kvx::test::HomeDirectory;
using kvx::test::outputOf;

namespace {

// Receives one batch and then leaves the main loop.
class Receiver : public RvDataCallback {
  public:
    explicit Receiver(CVekRvNet* net) : m_net(net) {}

    void onData(const char*, RvSender*, const RvDatum& data, RvListener*) override {
        RvMsg message(static_cast<const RvMsg&>(data));
        EXPECT_EQ(m_transport.RTAddMessage(&message), 1);
        if (m_transport.RTDone() != TRUE) return;
        const std::unique_ptr<CVekBag> bag(m_transport.RTDecodes());
        for (unsigned i = 0; i < bag->RBSize(); ++i) {
            const std::unique_ptr<CVekAtom> atom(static_cast<CVekAtom*>(bag->RBGet(i)));
            unsigned char* bytes = nullptr;
            int length = 0;
            atom->RAUChar(&bytes, &length);
            records.emplace_back(reinterpret_cast<const char*>(bytes),
                                 static_cast<std::size_t>(length));
        }
        status = m_transport.RTError();
        m_transport.RTPurge();
        m_net->RRNStopLoop();
    }

    std::vector<std::string> records;
    EVekStoreErrorStatus status = STORE_COMPLETE;

  private:
    CVekRvNet* m_net;
    CVekTransport m_transport{nullptr};
};

std::vector<std::string> numbered(int count) {
    std::vector<std::string> records;
    for (int i = 0; i < count; ++i) records.push_back("record " + std::to_string(i));
    return records;
}

void fill(CVekTransport& transport, const std::vector<std::string>& records) {
    for (const std::string& record : records) {
        auto* atom = new CVekAtom(reinterpret_cast<const unsigned char*>(record.data()),
                                  static_cast<int>(record.size()));
        transport.RTTakeROMP(&atom);
        transport.RTPreparePayloads(VEK_TRANS_V1);
    }
    transport.RTSetError(STORE_NO_INDEX);
    EXPECT_EQ(transport.RTCreatePackets(VEK_TRANS_V1, true), 1);
}

}  // namespace

TEST(TransportSending, CarriesBatchesThroughTheEnginesQueueAndOnASender) {
    const Daemon daemon;
    const HomeDirectory home(daemon.text());
    CVekEngine engine(1, "GROUP", "TEST", SERV_UNKNOWN);
    Receiver receiver(&engine);
    ASSERT_EQ(engine.RRNAddService("TRANSPORT", &receiver), 1);
    CVekTransport queued(&engine);
    fill(queued, numbered(250));
    EXPECT_EQ(queued.RTSetDestination("TRANSPORT"), 1);
    EXPECT_EQ(queued.RTSendAll(false), 1);
    EXPECT_EQ(queued.RTDone(), TRUE);
    EXPECT_EQ(engine.RESendQueueLength(), 3);
    engine.REDoIt();
    EXPECT_EQ(std::exchange(receiver.records, {}), numbered(250));
    EXPECT_EQ(receiver.status, STORE_NO_INDEX);

    int status = 0;
    const std::unique_ptr<RvSender> sender(engine.RRNNewSender(&status, "TRANSPORT.TEST", nullptr));
    CVekTransport direct(nullptr);
    EXPECT_EQ(direct.RTSetDestination(sender.get()), 1);
    fill(direct, numbered(3));
    const std::string warning = outputOf([&] {
        const DebugLevel level(1);
        EXPECT_EQ(direct.RTSendAll(true), 1);
    });
    EXPECT_EQ(warning, "-----------------if not in main thread this is NOT safe!---------\n");
    engine.RRNDoIt();
    EXPECT_EQ(receiver.records, numbered(3));
}

TEST(TransportSending, PutsPacketsAtTheEndOfTheQueueThatItIsAskedFor) {
    const HomeDirectory home("-");
    CVekEngine engine(1, "GROUP", "TEST", SERV_UNKNOWN);
    const auto queue = [&](const char* subject, bool front) {
        CVekTransport transport(&engine);
        fill(transport, numbered(1));
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
        const std::unique_ptr<CVekSendQueueItem> item(engine.RENextSendItem());
        ASSERT_NE(item, nullptr);
        EXPECT_STREQ(item->m_subject, subject);
    }
}
