// Engines and clients on a real bus.

#include "mom/engine/CVekClient.h"
#include "mom/engine/CVekEngine.h"
#include "tests/support/Daemon.h"
#include "tests/support/Nets.h"

using namespace kvx::test;

namespace {

struct Bus : testing::Test {
    Daemon daemon;
    Home home{daemon.text()};
    RvDatum datum{RVMSG_STRING, 2, "x"};
};

}  // namespace

TEST_F(Bus, LosesNothingOfEightThreadsAndKeepsTheOrderOfEach) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 1250;
    CVekEngine engine(1, "grp", "NET", SERV_UNKNOWN);
    engine.RESetMaxSendRate(200000);
    std::vector<int> next(kThreads, 0);
    int received = 0;
    OnData check([&](const char*, RvSender*, const RvDatum& data, RvListener*) {
        std::array<std::int32_t, 2> value{};
        ASSERT_EQ(data.size(), sizeof value);
        std::memcpy(value.data(), data.data(), sizeof value);
        EXPECT_EQ(next.at(value[0])++, value[1]);
        ++received;
    });
    ASSERT_EQ(engine.RRNAddService("BULK", &check), 1);
    std::vector<std::thread> threads;
    for (std::int32_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&engine, i] {
            for (std::int32_t n = 0; n < kPerThread; ++n) {
                const std::array<std::int32_t, 2> value = {i, n};
                const RvDatum numbers(RVMSG_OPAQUE, sizeof value, value.data());
                EXPECT_EQ(engine.REAddToSendQueue("BULK", new RvDatum(numbers), nullptr, TRUE), 1);
            }
        });
    }
    EXPECT_TRUE(runUntil(
        engine, [&] { return received == kThreads * kPerThread; }, &CVekEngine::REDoIt));
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread));
}

TEST_F(Bus, ARequestThatNobodyAnswersTimesOut) {
    std::string inbox;
    OnData waiting;
    waiting.callOnTimeout = [&](RvListener* listener) { inbox = listener->subject(); };
    CVekClient client(30, "NET");
    ASSERT_EQ(client.RRNSend("NOBODY", datum, &waiting), 1);
    EXPECT_TRUE(runUntil(client, [&] { return !inbox.empty(); }));
    EXPECT_EQ(waiting.messages, 0);
    EXPECT_NE(client.m_listeners->RTLGet(inbox.c_str()), nullptr);
    EXPECT_EQ(client.RRNRemoveListener(inbox.c_str()), 1);
    EXPECT_EQ(client.m_listeners->RTLGet(inbox.c_str()), nullptr);
}

TEST_F(Bus, AnEngineJoinsItsGroupAgainAsBackupAndLeavesNothingBehind) {
    CVekEngine engine(1, "grp", "NET", SERV_MODEL);
    CVekEnv env;
    engine.REStartHeartBeat("Model", "NET", &env);
    ASSERT_NE(engine.m_ftMemberId, nullptr);
    std::vector<bool> told;
    engine.RESetActive();
    engine.RESetRoleCallback([&](bool active) { told.push_back(active); });
    std::thread([&] { EXPECT_EQ(engine.RELeaveGroup(), -220425); }).join();
    EXPECT_EQ(engine.RELeaveGroup(), 1);
    EXPECT_EQ(engine.RELeaveGroup(), 1);
    EXPECT_EQ(told, std::vector<bool>{false});
    EXPECT_EQ(engine.m_ftSession, nullptr);
    EXPECT_EQ(engine.REIsFresh(), TRUE) << "without a group";
    EXPECT_EQ(engine.REInitSession(), 1);
    EXPECT_NE(engine.m_ftMemberId, nullptr);
    outputOf([&] { VekGetActivates(nullptr, "grp", RVFT_ACTIVATE, &engine); });
    const int listeners = engine.m_listeners->RTLLength();
    ASSERT_EQ(engine.REIsActive(), TRUE);
    EXPECT_EQ(engine.REInitSession(), 1);
    EXPECT_EQ(engine.REIsActive(), FALSE);
    EXPECT_EQ(engine.m_heartbeat->m_level, HB_BACKUP);
    EXPECT_EQ(engine.m_listeners->RTLLength(), listeners);
    EXPECT_EQ(engine.REIsFresh(), FALSE) << "not heard back yet";
    EXPECT_TRUE(runUntil(engine, [&] { return engine.REIsFresh() == TRUE; }));
}
