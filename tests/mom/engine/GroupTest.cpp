// An engine's identity, its group's name, its activation, and its heartbeats.

#include "mom/engine/CVekEngine.h"
#include "mom/transport/CVekTransport.h"
#include "platform/Socket.h"
#include "tests/support/Nets.h"
#include "tests/support/Packets.h"

using namespace kvx::test;

namespace {

using Group = NoDaemon;

// "program[pid] ", as every line of the activation begins.
std::string linePrefix() {
    const unsigned long pid = CVekProcess::Instance().GetPID();
    const kvx::Text name(VekGetBinaryName(pid));
    return std::string(name.get()) + "[" + std::to_string(pid) + "] ";
}

}  // namespace

TEST_F(Group, NamesEngineAndGroup) {
    CVekEngine engine(2, "modelsrv", "NET1", SERV_UNKNOWN);
    std::string host = kvx::platform::localHostName().value();
    host = host.substr(0, host.find('.'));
    EXPECT_EQ(engine.REGetEngineID(),
              host + ":" + std::to_string(CVekProcess::Instance().GetPID()));
    EXPECT_STREQ(engine.m_groupName.get(), "modelsrv.NET1.2");
    engine.m_domain.reset();
    engine.RESetTierNo(7);
    EXPECT_STREQ(engine.m_groupName.get(), "modelsrv.NET1.2");
    EXPECT_EQ(engine.REMakeGroupName(), 1);
    EXPECT_STREQ(engine.m_groupName.get(), "modelsrv.7");
}

TEST_F(Group, StartsReadyForNothingButTheLeadAtTheGivenAddress) {
    {
        CVekEngine engine(1, strdup("grp"), strdup("NET"), SERV_UNKNOWN);
        EXPECT_EQ(engine.REIsReady(), FALSE);
        EXPECT_EQ(engine.REIsLeader(), TRUE);
        EXPECT_EQ(engine.REIsActive(), FALSE);
        EXPECT_EQ(engine.REIsConsumer(), FALSE);
        EXPECT_EQ(engine.REGetMaxSendRate(), 150UL);
        EXPECT_EQ(engine.m_ftMemberId, nullptr);
    }
    home.writeConfiguration("rendezvous session = { 'daemon' = 'nonsense' };");
    CVekEngine engine(1, "grp", "NET", SERV_UNKNOWN, {.service = "", .network = "", .daemon = "-"});
    EXPECT_EQ(engine.m_ftSession->status().code(), 0);
    engine.RRNSetPostInitFns([&] { engine.RRNStopLoop(); });
    engine.RRNDoIt();
    EXPECT_EQ(errors.take(), Reports{});
}

TEST_F(Group, SaysWhyThereIsNoGroup) {
    const std::string said = errorOutputOf([] { CVekEngine(1, "grp", "NET", SERV_MODEL); });
    EXPECT_EQ(said, std::string("Failed to join ft group : ") + rvft_ErrorText(nullptr, 6) + "\n");
    EXPECT_EQ(errors.take(), Reports{});
    const char* const none = nullptr;
    const CVekEngine engine(1, none, "NET", SERV_MODEL);
    EXPECT_EQ(engine.m_ftSession, nullptr);
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekEngine", 419, ""},
                                      {-220552, "CVekEngine", 323, ""},
                                      {-220552, "CVekEngine", 162, ""}}));
    const CVekEngine adopting(1, static_cast<char*>(nullptr), strdup("NET"), SERV_MODEL);
    EXPECT_EQ(errors.take().back(), (Report{-220552, "CVekEngine", 235, ""}));
}

TEST_F(Group, FollowsTheGroupsDecisions) {
    CVekEngine engine(3, "grp", "NET", SERV_UNKNOWN);
    CVekEnv env;
    engine.REStartHeartBeat("Model", "NET", &env);
    const auto decide = [&](int action) {
        return outputOf([&] { VekGetActivates(nullptr, "grp", action, &engine); });
    };
    EXPECT_EQ(decide(RVFT_PREPARE_TO_ACTIVATE), linePrefix() + "\n");
    EXPECT_EQ(engine.REIsActive(), FALSE);
    EXPECT_EQ(decide(RVFT_ACTIVATE), linePrefix() + "Becoming Primary for tier 3\n");
    EXPECT_EQ(engine.REIsActive(), TRUE);
    EXPECT_EQ(engine.m_heartbeat->m_level, HB_PRIMARY);
    engine.RESetTierNo(4);
    EXPECT_EQ(decide(RVFT_DEACTIVATE), linePrefix() + "Becoming Backup for tier 4\n");
    EXPECT_EQ(engine.REIsActive(), FALSE);
    EXPECT_EQ(engine.m_heartbeat->m_level, HB_BACKUP);
    const DebugLevel level(4);
    EXPECT_EQ(decide(9),
              "Entering VekGetActivates (callback) with action9\n" + linePrefix() + "\n");
}

TEST_F(Group, TellsWhoeverFollowsTheRoleOnceAChangeAndOnTheMainThread) {
    auto engine = std::make_unique<CVekEngine>(1, "grp", "NET", SERV_UNKNOWN);
    std::vector<bool> told;
    engine->RESetActive();
    engine->RESetRoleCallback([&](bool active) { told.push_back(active); });
    engine->RESetActive();
    engine->RESetInActive();
    std::thread([&] { engine->RESetActive(); }).join();
    EXPECT_EQ(told, std::vector<bool>{false});
    EXPECT_TRUE(runUntil(
        *engine, [&] { return told.size() == 2; }, &CVekEngine::REDoIt));
    engine->RESetRoleCallback([&](bool) { engine.reset(); });
    outputOf([&] { VekGetActivates(nullptr, "grp", RVFT_DEACTIVATE, engine.get()); });
    EXPECT_EQ(engine, nullptr);
}

// Heartbeats, taken from the engine's queue before they leave.

using namespace kvx::test;

namespace {

struct Heartbeat : NoDaemon {
    // Has one beat sent, and returns the record that then waits at the queue's front.
    std::unique_ptr<CVekBaseRecord> beat(CVekHeartbeatClb& heartbeat) {
        heartbeat.onTimer(timerWith(&engine).get());
        const std::unique_ptr<CVekSendQueueItem> item(engine.RENextSendItem());
        if (!item) return nullptr;
        subject = item->m_subject;
        CVekTransport transport(nullptr);
        RvMsg message(const_cast<rvmsg_Msg>(item->m_datum->data()));
        EXPECT_EQ(transport.RTAddMessage(&message), 1);
        const Texts records = recordsOf(transport);
        EXPECT_EQ(records.size(), 1U);
        return std::unique_ptr<CVekBaseRecord>(
            CVekBaseRecord::ROMDecode(reinterpret_cast<const unsigned char*>(records.at(0).data()),
                                      static_cast<int>(records[0].size())));
    }

    std::unique_ptr<RvTimer> timerWith(void* closure) {
        int status = 0;
        return std::unique_ptr<RvTimer>(engine.RRNNewTimer(&status, 60000, &ignoreTimer, closure));
    }

    CVekEngine engine{1, "grp", "NET", SERV_UNKNOWN};
    CVekEnv env;
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
        const kvx::Text value(record->RRValueAt(i)->RAStrRep());
        fields += record->RRNameAt(i) + std::string("=") + value.get() + " ";
    }
    EXPECT_EQ(fields, "service=Model domain=NET1 host=" + std::string(env.RELocalHost()) +
                          " pid=" + std::to_string(getpid()) + " type=0 ");
    EXPECT_EQ(record->RRValueAt(3)->RAType(), VEK_TYPE_INT64);
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

TEST_F(Heartbeat, IsArmedForTheFirstBeatWhichASecondStartLeavesAlive) {
    engine.REStartHeartBeat("Model", "NET", &env, "X.Y");
    EXPECT_EQ(engine.m_hbTimer->interval(), 10000UL);
    EXPECT_EQ(engine.m_hbTimer->isRepeating(), rv_TRUE);
    EXPECT_EQ(engine.m_hbFirstTimer->interval(), 1500UL);
    EXPECT_EQ(engine.m_hbFirstTimer->isRepeating(), rv_FALSE);
    ASSERT_NE(beat(*engine.m_heartbeat), nullptr);
    EXPECT_EQ(subject, "X.Y");
    RvTimer* const first = engine.m_hbFirstTimer.get();
    const CVekHeartbeatClb* const firstBeat = engine.m_heartbeat.get();
    engine.REStartHeartBeat("Class", "NET", &env);
    EXPECT_NE(engine.m_heartbeat.get(), firstBeat);
    EXPECT_EQ(first->callback(), firstBeat);
    EXPECT_TRUE(first->isPending());
}

TEST_F(Heartbeat, ReportsAMissingSubjectAndTracesAMissingTimerOrEngine) {
    CVekHeartbeatClb heartbeat("Model", "NET", &env);
    heartbeat.RHCSetSubject("X.Y");
    heartbeat.RHCSetSubject(heartbeat.m_subject);
    EXPECT_STREQ(heartbeat.m_subject, "X.Y") << "its own subject";
    heartbeat.RHCSetSubject(nullptr);
    EXPECT_EQ(beat(heartbeat), nullptr);
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekHeartbeatClb", 358, "SendAll"}}));
    const DebugLevel level(4);
    EXPECT_EQ(outputOf([&] { heartbeat.onTimer(nullptr); }),
              "CVekHeartbeatClb::onTimer(): invoker obj is NULL!\n");
    const auto timer = timerWith(nullptr);
    EXPECT_EQ(outputOf([&] { heartbeat.onTimer(timer.get()); }),
              "CVekHeartbeatClb::onTimer(): CVekEngine obj is NULL!\n");
}
