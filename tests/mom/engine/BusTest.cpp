// Engines and clients on a real bus.

#include <array>
#include <cstring>

#include "mom/engine/CVekClient.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekQryInfo.h"
#include "mom/transport/CVekTransport.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Daemon.h"
#include "tests/support/ErrorRecorder.h"
#include "tests/support/Home.h"
#include "tests/support/Nets.h"

using namespace kvx::test;

namespace {

const char* const kModelQuery = CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(SERV_MODEL);

class Bus : public ::testing::Test {
  protected:
    // The records that answer `oql`, asked through `engine` or, without one, through `net`.
    int ask(const std::string& oql, CVekEngine* engine, CVekRvNet* net) {
        CVekTransport transport(nullptr);
        OnData collect([&](const char*, RvSender*, const RvDatum& datum, RvListener*) {
            RvMsg message(const_cast<rvmsg_Msg>(datum.data()));
            EXPECT_EQ(transport.RTAddMessage(&message), 1);
            ++packets;
        });
        packets = 0;
        const auto complete = [&] { return packets > 0 && transport.RTDone() == TRUE; };
        EXPECT_EQ(CVekQryInfo::RQISendOQL(oql.c_str(), kModelQuery, &collect, engine, net, TRUE),
                  1);
        EXPECT_TRUE(engine != nullptr ? runUntil(*engine, complete, &CVekEngine::REDoIt)
                                      : runUntil(*net, complete));
        const std::unique_ptr<CVekBag> records(transport.RTDecodes());
        status = transport.RTError();
        for (unsigned i = 0; i < records->RBSize(); ++i) {
            delete static_cast<CVekAtom*>(records->RBGet(i));
        }
        return static_cast<int>(records->RBSize());
    }

    Daemon daemon;
    Home home{daemon.text()};
    ErrorRecorder errors;
    int packets = 0;
    EVekStoreErrorStatus status = STORE_COMPLETE;
};

}  // namespace

TEST_F(Bus, AnEngineOfAnotherProcessAnswersQueries) {
    ChildProcess service(ANSWERING_ENGINE, {});
    ASSERT_NE(service.awaitOutput("ready"), "") << service.errors();
    {
        CVekClient client(5000, "NET");
        EXPECT_EQ(ask("rows 3", nullptr, &client), 3);
        EXPECT_EQ(packets, 1);
        EXPECT_EQ(ask("rows 0", nullptr, &client), 0);
        EXPECT_EQ(status, STORE_ZERO_MATCHES);
    }
    CVekEngine engine(1, "asking", "NET", SERV_UNKNOWN);
    EXPECT_EQ(ask("rows 2550", &engine, nullptr), 2550);
    EXPECT_EQ(packets, 26);
    EXPECT_EQ(ask("stop", &engine, nullptr), 0);
    EXPECT_EQ(service.wait(), 0) << service.errors();
    EXPECT_EQ(errors.take(), std::vector<Report>{});
}

TEST_F(Bus, LosesNothingOfEightThreadsAndKeepsTheOrderOfEach) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 1250;
    CVekEngine engine(1, "grp", "NET", SERV_UNKNOWN);
    engine.RESetMaxSendRate(200000);
    std::vector<int> next(kThreads, 0);
    int received = 0;
    OnData check([&](const char*, RvSender*, const RvDatum& datum, RvListener*) {
        std::array<std::int32_t, 2> value{};
        ASSERT_EQ(datum.size(), sizeof value);
        std::memcpy(value.data(), datum.data(), sizeof value);
        EXPECT_EQ(next.at(value[0])++, value[1]);
        ++received;
    });
    ASSERT_EQ(engine.RRNAddService("BULK", &check), 1);
    std::vector<std::thread> threads;
    for (std::int32_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&engine, i] {
            for (std::int32_t n = 0; n < kPerThread; ++n) {
                const std::array<std::int32_t, 2> value = {i, n};
                const RvDatum datum(RVMSG_OPAQUE, sizeof value, value.data());
                EXPECT_EQ(engine.REAddToSendQueue("BULK", new RvDatum(datum), nullptr, TRUE), 1);
            }
        });
    }
    EXPECT_TRUE(runUntil(
        engine, [&] { return received == kThreads * kPerThread; }, &CVekEngine::REDoIt));
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(next, std::vector<int>(kThreads, kPerThread));
}

TEST_F(Bus, MakesOneSenderPerSubjectAndForgetsOldInboxes) {
    CVekEngine engine(1, "grp", "NET", SERV_UNKNOWN);
    RvDatum datum(RVMSG_STRING, 2, "x");
    EXPECT_EQ(engine.RRNSend("A", datum), 1);
    const void* const sender = engine.m_senders->RTLGet("A.NET")->RPData();
    EXPECT_EQ(engine.RRNSend("A", datum), 1);
    EXPECT_EQ(engine.RESend("A", datum, TRUE), 1);
    EXPECT_EQ(engine.m_senders->RTLGet("A.NET")->RPData(), sender);
    EXPECT_EQ(engine.m_senders->RTLLength(), 1);
    for (int i = 0; i < 5000; ++i) {
        const std::string inbox = "_INBOX.A." + std::to_string(i);
        ASSERT_EQ(engine.RESend(inbox.c_str(), datum, FALSE), 1);
    }
    EXPECT_LE(engine.m_senders->RTLLength(), 4097);
    EXPECT_NE(engine.m_senders->RTLGet("_INBOX.A.4999"), nullptr);
    EXPECT_EQ(engine.m_senders->RTLGet("A.NET")->RPData(), sender);
}

TEST_F(Bus, ARequestThatNobodyAnswersTimesOut) {
    struct Waiting : RvDataCallback {
        void onData(const char*, RvSender*, const RvDatum&, RvListener*) override { ++answers; }
        void onTimeout(RvListener* listener) override { inbox = listener->subject(); }
        int answers = 0;
        std::string inbox;
    } waiting;
    CVekClient client(30, "NET");
    RvDatum datum(RVMSG_STRING, 2, "x");
    ASSERT_EQ(client.RRNSend("NOBODY", datum, &waiting), 1);
    EXPECT_TRUE(runUntil(client, [&] { return !waiting.inbox.empty(); }));
    EXPECT_EQ(waiting.answers, 0);
    EXPECT_NE(client.m_listeners->RTLGet(waiting.inbox.c_str()), nullptr);
    EXPECT_EQ(client.RRNRemoveListener(waiting.inbox.c_str()), 1);
    EXPECT_EQ(client.m_listeners->RTLGet(waiting.inbox.c_str()), nullptr);
}

TEST_F(Bus, OneEngineOfAGroupIsActiveAndTheOtherTakesOver) {
    const std::string said = outputOf([&] {
        CVekEngine watcher(1, "watching", "NET", SERV_UNKNOWN);
        auto first = std::make_unique<CVekEngine>(1, "grp", "NET", SERV_MODEL);
        const auto second = std::make_unique<CVekEngine>(1, "grp", "NET", SERV_MODEL);
        const auto isActive = [](CVekEngine& engine) { return engine.REIsActive() == TRUE; };
        EXPECT_TRUE(runUntil(watcher, [&] { return isActive(*first) || isActive(*second); }));
        EXPECT_NE(isActive(*first), isActive(*second));
        EXPECT_TRUE(isActive(*first));  // it joined earlier
        first.reset();
        EXPECT_TRUE(runUntil(watcher, [&] { return isActive(*second); }));
    });
    const auto became = said.find("Becoming Primary for tier 1\n");
    EXPECT_NE(became, std::string::npos) << said;
    EXPECT_NE(said.find("Becoming Primary for tier 1\n", became + 1), std::string::npos) << said;
}

TEST_F(Bus, HeartbeatsArriveOnTheControlSubject) {
    CVekEngine engine(1, "grp", "NET", SERV_UNKNOWN);
    CVekEnv env;
    std::vector<std::string> heard;
    OnData listen([&](const char* subject, RvSender*, const RvDatum& datum, RvListener*) {
        RvMsg message(const_cast<rvmsg_Msg>(datum.data()));
        CVekTransport transport(nullptr);
        EXPECT_EQ(transport.RTAddMessage(&message), 1);
        heard.emplace_back(subject);
    });
    ASSERT_EQ(engine.RRNAddExService("ZEMBRALIX.3.0.CTRL.NOTIFY", &listen), 1);
    engine.REStartHeartBeat("Model", "NET", &env);
    engine.REStartHeartBeat("Class", "NET", &env);  // the first one's first beat comes too
    EXPECT_TRUE(runUntil(
        engine, [&] { return heard.size() == 2; }, &CVekEngine::REDoIt));
    EXPECT_EQ(heard, std::vector<std::string>(2, "ZEMBRALIX.3.0.CTRL.NOTIFY"));
}
