// An engine's identity, its group's name, its flags and its activation.

#include "mom/engine/CVekEngine.h"
#include "platform/Socket.h"
#include "tests/support/Nets.h"

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
