// Heartbeats, taken from the engine's queue before they leave.

#include <cstring>

#include "mom/engine/CVekEngine.h"
#include "mom/transport/CVekTransport.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"
#include "tests/support/Nets.h"

using namespace kvx::test;

namespace {

class Heartbeat : public ::testing::Test {
  protected:
    // Has one beat sent, and returns the record that then waits at the queue's front.
    std::unique_ptr<CVekBaseRecord> beat(CVekHeartbeatClb& heartbeat) {
        heartbeat.onTimer(timerWith(&engine).get());
        const std::unique_ptr<CVekSendQueueItem> item(engine.RENextSendItem());
        if (!item) return nullptr;
        subject = item->m_subject;
        return decoded(*item->m_datum);
    }

    std::unique_ptr<RvTimer> timerWith(void* closure) {
        int status = 0;
        return std::unique_ptr<RvTimer>(engine.RRNNewTimer(&status, 60000, &never, closure));
    }

    static std::unique_ptr<CVekBaseRecord> decoded(const RvDatum& datum) {
        CVekTransport transport(nullptr);
        RvMsg message(const_cast<rvmsg_Msg>(datum.data()));
        EXPECT_EQ(transport.RTAddMessage(&message), 1);
        EXPECT_EQ(transport.RTDone(), TRUE);
        const std::unique_ptr<CVekBag> records(transport.RTDecodes());
        if (records->RBSize() != 1) return nullptr;
        const std::unique_ptr<CVekAtom> bytes(static_cast<CVekAtom*>(records->RBGet(0)));
        unsigned char* data = nullptr;
        int length = 0;
        EXPECT_EQ(bytes->RAUChar(&data, &length), 1);
        return std::unique_ptr<CVekBaseRecord>(CVekBaseRecord::ROMDecode(data, length));
    }

    Home home{"-"};
    ErrorRecorder errors;
    CVekEngine engine{1, "grp", "NET", SERV_UNKNOWN};
    CVekEnv env;
    OnTimer never;
    std::string subject;
};

}  // namespace

TEST_F(Heartbeat, AnnouncesServiceDomainHostAndProcess) {
    CVekHeartbeatClb heartbeat("Model", "NET1", &env);
    engine.REAddToSendQueue("EARLIER", new RvDatum, nullptr, FALSE);
    const auto record = beat(heartbeat);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(subject, "ZEMBRALIX.3.0.CTRL.NOTIFY");
    std::string fields;
    for (int i = 0; i < record->RRSize(); ++i) {
        fields += record->RRNameAt(i) + std::string(" ");
    }
    EXPECT_EQ(fields, "service domain host pid type ");
    EXPECT_STREQ(record->RRValueAt(0)->RAString(), "Model");
    EXPECT_STREQ(record->RRValueAt(1)->RAString(), "NET1");
    EXPECT_STREQ(record->RRValueAt(2)->RAString(), env.RELocalHost());
    EXPECT_EQ(record->RRValueAt(3)->RAType(), VEK_TYPE_INT64);
    EXPECT_EQ(static_cast<unsigned long>(record->RRValueAt(3)->RAInt64()),
              CVekProcess::Instance().GetPID());
    EXPECT_EQ(heartbeat.m_transport, nullptr);
}

TEST_F(Heartbeat, CarriesTypeOneAfterTheFirstBeatAsPrimary) {
    CVekHeartbeatClb heartbeat(nullptr, nullptr, &env);
    const auto nextType = [&] { return beat(heartbeat)->RRGetValue("type")->RAInt(); };
    EXPECT_EQ(nextType(), 0);
    EXPECT_EQ(nextType(), 0);
    engine.RESetActive();
    EXPECT_EQ(nextType(), 0);
    EXPECT_EQ(heartbeat.m_level, HB_PRIMARY);
    EXPECT_EQ(nextType(), 1);
    engine.RESetInActive();
    EXPECT_EQ(nextType(), 1);
    EXPECT_EQ(heartbeat.m_level, HB_BACKUP);
    EXPECT_STREQ(beat(heartbeat)->RRGetValue("service")->RAString(), "");
}

TEST_F(Heartbeat, IsArmedForTheFirstBeatAndForAllOthers) {
    engine.REStartHeartBeat("Model", "NET", &env, "X.Y");
    EXPECT_EQ(engine.m_hbTimer->interval(), 10000UL);
    EXPECT_EQ(engine.m_hbTimer->isRepeating(), rv_TRUE);
    EXPECT_EQ(engine.m_hbFirstTimer->interval(), 1500UL);
    EXPECT_EQ(engine.m_hbFirstTimer->isRepeating(), rv_FALSE);
    ASSERT_NE(beat(*engine.m_heartbeat), nullptr);
    EXPECT_EQ(subject, "X.Y");
}

TEST_F(Heartbeat, ASecondStartLeavesTheFirstBeatAlive) {
    engine.REStartHeartBeat("Model", "NET", &env);
    RvTimer* const first = engine.m_hbFirstTimer.get();
    const CVekHeartbeatClb* const firstBeat = engine.m_heartbeat.get();
    engine.REStartHeartBeat("Class", "NET", &env);
    EXPECT_NE(engine.m_heartbeat.get(), firstBeat);
    EXPECT_EQ(first->callback(), firstBeat);
    EXPECT_TRUE(first->isPending());
}

TEST_F(Heartbeat, WithoutATimerOrAnEngineOnlyTraces) {
    CVekHeartbeatClb heartbeat("Model", "NET", &env);
    const DebugLevel level(4);
    EXPECT_EQ(outputOf([&] { heartbeat.onTimer(nullptr); }),
              "CVekHeartbeatClb::onTimer(): invoker obj is NULL!\n");
    const auto timer = timerWith(nullptr);
    EXPECT_EQ(outputOf([&] { heartbeat.onTimer(timer.get()); }),
              "CVekHeartbeatClb::onTimer(): CVekEngine obj is NULL!\n");
}

TEST_F(Heartbeat, WithoutASubjectReportsWhatFails) {
    CVekHeartbeatClb heartbeat("Model", "NET", &env);
    heartbeat.RHCSetSubject("X.Y");
    heartbeat.RHCSetSubject(heartbeat.m_subject);
    EXPECT_STREQ(heartbeat.m_subject, "X.Y") << "its own subject";
    heartbeat.RHCSetSubject(nullptr);
    EXPECT_EQ(beat(heartbeat), nullptr);
    EXPECT_EQ(errors.take(), (std::vector<Report>{{-220552, "CVekHeartbeatClb", 358, "SendAll"}}));
}
