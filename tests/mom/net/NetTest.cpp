// Settings, session life, agent, start-up hook and advisories of a network object.

#include "mom/net/CVekNet.h"

#include <locale>

#include "mom/base/VekTrace.h"
#include "mom/net/CVekPostInitTimedClb.h"
#include "mom/net/LoopThread.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FailingNew.h"
#include "tests/support/Nets.h"

namespace kvx::test {
namespace {

const char* const kNoDomain = nullptr;

struct RvNet : NoDaemon {
    // What the agent that `net` starts is given.
    std::string agentArguments(CVekRvNet& net) {
        std::ofstream(home.file("bin/rva"))
            << "#!/bin/sh\nprintf '%s ' \"$@\" > \"$KVX_HOME/part\"\n"
            << "mv \"$KVX_HOME/part\" \"$KVX_HOME/arguments\"\nexec sleep 600\n";
        std::filesystem::permissions(home.file("bin/rva"), std::filesystem::perms::owner_all);
        EXPECT_EQ(net.RRNStartAgent(), 1);
        EXPECT_TRUE(net.m_agentStarted);
        EXPECT_TRUE(eventually([&] { return std::filesystem::exists(home.file("arguments")); }));
        return contentOf(home.file("arguments"));
    }
};

TEST(Net, LatencyIsNeverZeroAndWrittenTheSameInEveryLocale) {
    EXPECT_EQ(CVekNet(0, kNoDomain).RNGetLatency(), 8000UL);
    CVekNet net(1, kNoDomain);
    EXPECT_EQ(net.RNGetLatency(), 1UL);
    EXPECT_EQ(errorOutputOf([&] { net.RNSetLatency(0); }),
              "WARNING: The given net latency 0 is not valid. Using default latency value.\n");
    EXPECT_EQ(net.RNGetLatency(), 8000UL);
    net.RNSetLatency(1UL << 32);
    EXPECT_GT(net.RNGetLatency(), 0UL);
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::ostringstream out;
    const std::locale before = std::locale::global({std::locale::classic(), new Grouping});
    kvx::writeGuarded(out, 4000);
    std::locale::global(before);
    EXPECT_EQ(out.str(), "4000");
}

TEST(Net, AdoptsOrCopiesItsDomain) {
    char* const adopted = strdup("NET1");
    CVekNet net(0, adopted);
    EXPECT_EQ(net.RNGetDomain(), adopted);
    EXPECT_EQ(net.RNSetDomain(nullptr), -220552);
    EXPECT_EQ(net.RNGetDomain(), adopted);
    char* const next = strdup("");
    EXPECT_EQ(net.RNSetDomain(next), 1);
    EXPECT_EQ(net.RNGetDomain(), next);
    const char* const text = "NET2";
    CVekNet copying(0, text);
    EXPECT_NE(copying.RNGetDomain(), text);
    EXPECT_STREQ(copying.RNGetDomain(), text);
}

TEST_F(RvNet, OpensItsSessionWhenBuiltAndClosesItOnce) {
    TestNet net;
    EXPECT_EQ(net.m_sessionUp, 1);
    EXPECT_EQ(net.m_mainThreadId, CVekThread::RTId());
    ASSERT_NE(net.m_queueTimer, nullptr);
    EXPECT_EQ(net.m_queueTimer->interval(), 100UL);
    EXPECT_EQ(net.RRNTerminateSession(), 1);
    EXPECT_EQ(net.m_sessionUp, 0);
    EXPECT_EQ(net.m_session, nullptr);
    EXPECT_EQ(net.m_answers, nullptr);
    EXPECT_EQ(net.RRNTerminateSession(), 1);
    net.RRNDoIt();  // returns at once
    EXPECT_EQ(errors.take(), Reports{});
    const std::string said =
        errorOutputOf([] { EXPECT_STREQ(TestNet(nullptr).RNGetDomain(), "DEFAULT"); });
    EXPECT_EQ(said, "ERROR: Domain Name is NULL, using default.\n");
}

TEST_F(RvNet, WithoutASessionEveryOperationSaysSo) {
    home.writeConfiguration("rendezvous session = { 'daemon' = 'nonsense' };");
    std::unique_ptr<TestNet> net;
    const std::string said = errorOutputOf([&] { net = std::make_unique<TestNet>(); });
    EXPECT_EQ(said.rfind("Rendezvous failed to make session: ", 0), 0U) << said;
    EXPECT_EQ(errors.take(), (Reports{{-220544, "CVekRvNet", 187, ""}}));

    int status = 0;
    OnIO io;
    EXPECT_EQ(net->RRNSend("A", datum), -220544);
    EXPECT_EQ(net->RRNSend("A", datum, &ignoreData), -220544);
    EXPECT_EQ(net->RRNAddTimer(1, &ignoreTimer), -220544);
    EXPECT_EQ(net->RRNAddExService("A", &ignoreData), -220544);
    EXPECT_EQ(net->RRNAddErrorService(&ignoreData), -220544);
    EXPECT_EQ(net->RRNAddIOHandle(0, TRUE, FALSE, FALSE, &io), -220544);
    EXPECT_EQ(net->RRNNewSender(&status, "A", nullptr), nullptr);
    EXPECT_NE(status, 1);
    EXPECT_EQ(net->RRNRemoveListener("A"), 1);
    EXPECT_EQ(net->RRNRemoveTimer(reinterpret_cast<RvTimer*>(&datum)), -220547);
}

TEST_F(RvNet, HandsTheAgentWhatTheConfigurationNames) {
    home.writeConfiguration(
        "rendezvous session = { 'daemon' = '-', 'rva' = '7600', 'service' = 'svc' };");
    TestNet net;
    EXPECT_EQ(net.RRNStopAgent(), 1);
    EXPECT_EQ(agentArguments(net), "-foreground -flavor 53 -listen 7600 -service svc -daemon - ");
    EXPECT_EQ(net.RRNStopAgent(), 1);
    EXPECT_FALSE(net.m_agentStarted);
    EXPECT_EQ(errors.take(), Reports{});
}

TEST_F(RvNet, TakesItsAddressFromTheConfigurationWhereNoneWasGiven) {
    EXPECT_EQ(TestNet().RRNAddress().daemon, "-");
    home.writeConfiguration("rendezvous session = { 'daemon' = 'nonsense', 'service' = 'svc' };");
    TestNet net("TEST", {.service = "", .network = "net", .daemon = "-"});
    EXPECT_EQ(net.m_sessionUp, 1);
    EXPECT_EQ(net.RRNAddress().service, "svc");
    EXPECT_EQ(agentArguments(net), "-foreground -flavor 53 -service svc -network net -daemon - ");
    EXPECT_EQ(net.RRNStopAgent(), 1);
    EXPECT_EQ(net.RRNInitSession(), 1);  // reads the file again
    EXPECT_EQ(errors.take(), Reports{});
}

TEST_F(RvNet, ReportsAnAgentThatIsNotThereAndWhoEndsItOnAnotherThread) {
    TestNet net;
    std::thread([&] { net.RRNCheckThreadId(); }).join();
    EXPECT_EQ(errors.take(), (Reports{{-220425, "CVekRvNet", 1809, ""}}));
    EXPECT_EQ(net.RRNStartAgent(), 1);
    EXPECT_FALSE(net.m_agentStarted);
    EXPECT_EQ(errors.take(),
              (Reports{{-220439, "CVekRvNet", 544,
                        "Unable to start Rendezvous Agent (rva), you may need to start "
                        "this manually"}}));
}

TEST_F(RvNet, RunsItsHookOncePerEntryIntoTheLoop) {
    TestNet net;
    int calls = 0;
    net.hook = [&] {
        ++calls;
        net.RRNStopLoop();
    };
    net.RRNDoIt();
    net.RRNDoIt();
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(net.m_timers->RDLLength(), 2);  // the spent timers stay registered
}

TEST_F(RvNet, ServesAllNetsOfItsThreadInOneLoopAlsoWhenOneIsDestroyedInIt) {
    TestNet first;
    auto hooked = std::make_unique<TestNet>();
    hooked->hook = [&] { hooked.reset(); };
    hooked->RRNDoIt();
    EXPECT_EQ(hooked, nullptr);
    auto second = std::make_unique<TestNet>();
    OnTimer destroy([&](RvTimer*) { second.reset(); });
    ASSERT_EQ(second->RRNAddTimer(1, &destroy), 1);
    EXPECT_TRUE(runUntil(first, [&] { return second == nullptr; }));
    auto own = std::make_unique<TestNet>();
    OnTimer destroyOwn([&](RvTimer*) { own.reset(); });
    ASSERT_EQ(own->RRNAddTimer(1, &destroyOwn), 1);
    own->RRNDoIt();
    EXPECT_EQ(own, nullptr);
}

TEST_F(RvNet, RefusesASecondNetOnAnotherThreadWhileThereIsOne) {
    const char* const text = "another thread of this process has a net already";
    const auto elsewhere = [](const std::function<void()>& act) { std::thread(act).join(); };
    auto first = std::make_unique<TestNet>();
    elsewhere([] {
        const TestNet second;
        EXPECT_EQ(second.m_session, nullptr);
    });
    EXPECT_EQ(errors.take(),
              (Reports{{-220425, "CVekRvNet", 1809, text}, {-220425, "CVekRvNet", 187, ""}}));
    EXPECT_EQ(first->RRNInitSession(), 1);
    first->RRNTerminateSession();
    elsewhere([&] {
        const TestNet second;
        EXPECT_EQ(second.m_sessionUp, 1);
    });
    elsewhere([&] {
        EXPECT_EQ(first->RRNInitSession(), 1);  // it moves to the thread that opens it again
        first.reset();
    });
    EXPECT_EQ(errors.take(), Reports{});
}

TEST(LoopThread, AClaimThatFindsNoMemoryIsGivenBack) {
    const int here = 0;
    for (long failing = 0; newsBeforeFailure < 0; ++failing) {
        newsBeforeFailure = failing;
        try {
            EXPECT_NE(claimLoopThread(&here), nullptr);
        } catch (const std::bad_alloc&) {
        }
    }
    newsBeforeFailure = -1;
    std::thread([] { EXPECT_NE(claimLoopThread(&newsBeforeFailure), nullptr); }).join();
}

TEST_F(RvNet, UserCodeThatEndingRunsFindsAnEndedNet) {
    struct Last : OnData {
        explicit Last(std::function<void()> act) : atEnd(std::move(act)) {}
        ~Last() override { atEnd(); }
        std::function<void()> atEnd;
    };
    auto net = std::make_unique<TestNet>();
    bool destroyed = false;
    ASSERT_EQ(net->RRNTakeService("_RV.A", new Last([&] {
                                      EXPECT_EQ(net->RRNTakeService("_RV.B", &ignoreData), -220544);
                                      net.reset();
                                      destroyed = true;
                                  })),
              1);
    net->RRNTerminateSession();
    EXPECT_TRUE(destroyed);
}

TEST_F(RvNet, ReportsWarningsAndErrorsOfTheBusThatItsOwnSessionHears) {
    TestNet net;
    ASSERT_EQ(rv_Deliver(net.m_session->handle(), "_RV.ERROR.MINE.TEST", nullptr, RVMSG_STRING, 5,
                         "gone"),
              0);
    EXPECT_EQ(
        errors.take(),
        (Reports{{-220379, "CVekRvErrorClb", 157, "Subject: _RV.ERROR.MINE.TEST. Message: gone"}}));
    CVekRvErrorClb callback;
    const auto advise = [&](const char* subject, const RvDatum& data) {
        callback.onData(subject, nullptr, data, nullptr);
    };
    long number = 77;
    RvMsg message;
    advise("_RV.WARN.SYSTEM.X", RvDatum());
    advise("_RV.ERROR.SYSTEM.X", RvDatum(RVMSG_STRING, 5, "late"));
    advise("_RV.WARN.SYSTEM.X", RvDatum(RVMSG_INT, 4, &number));
    advise("_RV.ERROR.SYSTEM.X", message);
    advise("_RV.INFO.SYSTEM.X", RvDatum());
    advise(nullptr, RvDatum());
    EXPECT_EQ(
        errors.take(),
        (Reports{{-220380, "CVekRvErrorClb", 142, "Subject: _RV.WARN.SYSTEM.X"},
                 {-220379, "CVekRvErrorClb", 157, "Subject: _RV.ERROR.SYSTEM.X. Message: late"},
                 {-220380, "CVekRvErrorClb", 142, "Subject: _RV.WARN.SYSTEM.X. Message: 77"}}));
}

}  // namespace
}  // namespace kvx::test
