// An engine's sends, its queue and its queries, without a bus.

#include "mom/engine/CVekClient.h"
#include "mom/engine/CVekClientSender.h"
#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekInitTimedClb.h"
#include "mom/engine/CVekQryInfo.h"
#include "mom/engine/CVekSnoop.h"
#include "mom/engine/CVekUpdWork.h"
#include "tests/support/Nets.h"

using namespace kvx::test;

namespace {

struct SendQueue : NoDaemon {
    int queue(const char* subject, __boolean qualify = FALSE) {
        return engine.REAddToSendQueue(subject, new RvDatum(datum), nullptr, qualify);
    }
    using Item = std::unique_ptr<CVekSendQueueItem>;
    Item next() { return Item(engine.RENextSendItem()); }
    std::string nextSubject() {
        const Item item = next();
        return item ? item->m_subject : "(none)";
    }

    CVekEngine engine{1, "grp", "NET", SERV_UNKNOWN};
};

}  // namespace

TEST_F(SendQueue, IsFirstInFirstOutButForWhatIsPutInFrontAndCarriesWhatTheSendNeeds) {
    EXPECT_EQ(queue("A"), 1);
    EXPECT_EQ(queue("B", TRUE), 1);
    EXPECT_EQ(engine.REAddToSendQueueFront("C", new RvDatum(datum), nullptr, TRUE), 1);
    EXPECT_EQ(engine.RESendQueueLength(), 3);
    EXPECT_EQ(engine.REGetQueue()->RSLength(), 3);
    EXPECT_EQ(nextSubject(), "C.NET");
    EXPECT_EQ(nextSubject(), "A");
    EXPECT_EQ(nextSubject(), "B.NET");
    EXPECT_EQ(nextSubject(), "(none)");
    engine.RNSetLatency(1234);
    auto* const sent = new RvDatum(datum);
    EXPECT_EQ(engine.REAddToSendQueue("A", sent, &ignoreData, FALSE), 1);
    EXPECT_EQ(engine.REAddToSendQueue("A", new RvDatum(datum), &ignoreData, 77UL, FALSE), 1);
    const Item item = next();
    EXPECT_EQ(item->m_datum, sent);
    EXPECT_EQ(item->m_callback, &ignoreData);
    EXPECT_EQ(item->m_closure, &engine);
    EXPECT_EQ(item->m_timeout, 1234);
    EXPECT_EQ(next()->m_timeout, 77);
}

TEST_F(SendQueue, SendsOfOtherThreadsAreQueuedAndQualifiedOnceMore) {
    std::thread([&] {
        EXPECT_EQ(engine.RESend("A", datum, FALSE), 1);
        EXPECT_EQ(engine.RESend("B", datum, TRUE), 1);
        EXPECT_EQ(engine.RESend("C", datum, &ignoreData, 5, FALSE), nullptr);
    }).join();
    const char* const text = "so adding to send queue!";
    EXPECT_EQ(errors.take(), (Reports{{-220425, "CVekEngine", 641, text},
                                      {-220425, "CVekEngine", 641, text},
                                      {-220425, "CVekEngine", 784, text}}));
    EXPECT_EQ(nextSubject(), "A.NET");
    EXPECT_EQ(nextSubject(), "B.NET.NET");
    const Item request = next();
    EXPECT_STREQ(request->m_subject, "C.NET");
    EXPECT_EQ(request->m_timeout, 8000);
    EXPECT_NE(request->m_datum, &datum);
}

TEST_F(SendQueue, ReportsAndDropsWhatHasNoSubjectOrTheBusRefuses) {
    const char* const none = nullptr;
    EXPECT_EQ(engine.RESend(none, datum, FALSE), -220552);
    EXPECT_EQ(engine.RESend(none, datum, &ignoreData, 5, FALSE), nullptr);
    EXPECT_EQ(engine.REAddToSendQueue(none, new RvDatum(datum), nullptr, FALSE), -220552);
    EXPECT_EQ(engine.REAddToSendQueueFront(none, new RvDatum(datum), nullptr, FALSE), -220552);
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekEngine", 730, ""}}));
    EXPECT_EQ(engine.RESendQueueLength(), 0);

    EXPECT_EQ(engine.RESend("A", datum, FALSE), -220545);
    EXPECT_EQ(engine.RESend("A", datum, &ignoreData), nullptr);
    EXPECT_EQ(engine.m_senders->RTLLength(), 0);
    EXPECT_EQ(errors.take(), (Reports{{-220545, "CVekEngine", 767, ""}}));
    queue("A");
    engine.REAddToSendQueue("B", new RvDatum(datum), &ignoreData, FALSE);
    EXPECT_EQ(next()->RSQIDeQueueIt(), -220545);
    EXPECT_EQ(next()->RSQIDeQueueIt(), -220545);
    EXPECT_EQ(errors.take(), (Reports{{-220545, "CVekSendQueueItem", 210, ""},
                                      {-220545, "CVekEngine", 767, ""},
                                      {-220545, "CVekSendQueueItem", 210, ""}}));
    EXPECT_EQ(CVekSendQueueItem("A", nullptr, nullptr, &engine, 5).RSQIDeQueueIt(), -220552);
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekSendQueueItem", 210, ""}}));
}

TEST_F(SendQueue, LeavesAtABoundedNumberOfItemsATick) {
    engine.RESetMaxSendRate(39);
    EXPECT_EQ(engine.REGetMaxSendRate(), 39UL);
    for (int i = 0; i < 7; ++i) queue("_RV.X");
    std::vector<int> lengths;
    OnTimer look([&](RvTimer*) {
        lengths.push_back(engine.RESendQueueLength());
        if (lengths.back() == 0) engine.RRNStopLoop();
    });
    // Armed by another timer: the queue's own was armed before, and fires first at every tick.
    int status = 0;
    std::unique_ptr<RvTimer> timer;
    OnTimer arm(
        [&](RvTimer*) { timer.reset(engine.RRNNewTimer(&status, 100, rv_TRUE, &look, nullptr)); });
    ASSERT_EQ(engine.RRNAddTimer(1, &arm), 1);
    engine.REDoIt();
    EXPECT_EQ(lengths, (std::vector<int>{4, 1, 0}));
    EXPECT_EQ(CVekInitTimedClb(0).m_itemsPerTick, 1);
    EXPECT_EQ(CVekInitTimedClb(-5).m_itemsPerTick, 1);
}

TEST_F(SendQueue, GoesOnLeavingAfterACallInsideTheLoop) {
    OnTimer nest([&](RvTimer*) {
        engine.REDoIt();
        queue("_RV.X");
    });
    ASSERT_EQ(engine.RRNAddTimer(1, &nest), 1);
    EXPECT_TRUE(runUntil(
        engine, [&] { return engine.RESendQueueLength() == 0; }, &CVekEngine::REDoIt));
}

TEST_F(SendQueue, TracesButForHeartbeats) {
    const DebugLevel level(4);
    EXPECT_EQ(outputOf([&] { queue("A"); }),
              "CVekEngine::REAddToSendQueue(A,RvDatum,RvDataCallback,ulong,0)\n");
    const auto front = [&](const char* subject) {
        return outputOf(
            [&] { engine.REAddToSendQueueFront(subject, new RvDatum(datum), nullptr, FALSE); });
    };
    EXPECT_EQ(front("A"), "CVekEngine::REAddToSendQueueFront(A,RvDatum,RvDataCallback,0)\n");
    EXPECT_EQ(front("ZEMBRALIX.3.0.CTRL.NOTIFY"), "");
    EXPECT_EQ(outputOf([&] { engine.RESend("ZEMBRALIX.3.0.CTRL.NOTIFY", datum, FALSE); }),
              "RRNNewSender() handler created for subject ZEMBRALIX.3.0.CTRL.NOTIFY\n");
    const std::string sent = outputOf([&] { engine.RESend("A", datum, FALSE); });
    EXPECT_NE(sent.find("CVekEngine::RESendWithNoReplyRequested(0x"), std::string::npos) << sent;
}

// RRNDoIt has no tick of the queue: what leaves there leaves at once.
TEST_F(SendQueue, LeavesAtOnceWithinOneTicksShareWhenAsked) {
    engine.RESetMaxSendRate(20);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(queue("A"), 1);
    EXPECT_EQ(engine.RESendPromptly(), 1);
    EXPECT_TRUE(runUntil(engine, [&] { return engine.RESendQueueLength() <= 3; }));
    EXPECT_EQ(engine.RESendQueueLength(), 3);
    engine.RESetMaxSendRate(100000);
    std::thread([&] { EXPECT_EQ(queue("A"), 1); }).join();
    EXPECT_TRUE(runUntil(engine, [&] { return engine.RESendQueueLength() == 0; }));
    EXPECT_EQ(errors.take().size(), 6U);  // there is no daemon
}

TEST_F(SendQueue, SendsNoMoreThanTheRatePromptlyAndByTheTickTogether) {
    engine.RESetMaxSendRate(40);  // four a tick
    EXPECT_EQ(engine.RESendPromptly(), 1);
    int queued = 0;
    const auto begin = std::chrono::steady_clock::now();
    OnTimer queueOne([&](RvTimer*) {
        queue("A");
        ++queued;
        if (std::chrono::steady_clock::now() - begin > std::chrono::milliseconds(450)) {
            engine.RRNStopLoop();
        }
    });
    ASSERT_EQ(engine.RRNAddRepeatTimer(5, &queueOne), 1);
    engine.REDoIt();
    const auto ticks = (std::chrono::steady_clock::now() - begin) / std::chrono::milliseconds(100);
    EXPECT_LE(queued - engine.RESendQueueLength(), 4 * (ticks + 2));
}

// Query records, snoops and the client's one-shot sender, without a bus.

using namespace kvx::test;

namespace {

struct Query : NoDaemon {
    std::string textOf(CVekQryInfo& query) {
        const kvx::Text text(query.RQIQuery());
        return text ? text.get() : "(null)";
    }

    CVekEngine engine{1, "grp", "NET", SERV_UNKNOWN};
};

}  // namespace

TEST_F(Query, TravelsAsAMessageOfTextAndVersionThatItOutlives) {
    EXPECT_EQ(CVekQryInfo::RQISendOQL("select * from x", "S", &ignoreData, &engine, nullptr, TRUE),
              1);
    const std::unique_ptr<CVekSendQueueItem> item(engine.RENextSendItem());
    ASSERT_NE(item, nullptr);
    EXPECT_STREQ(item->m_subject, "S.NET");
    CVekQryInfo query("S.NET", nullptr, *item->m_datum, nullptr);
    EXPECT_STREQ(query.RQISubject(), "S.NET");
    EXPECT_EQ(textOf(query), "select * from x");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V1);
    EXPECT_NE(query.RQIDatum(), item->m_datum);
    RvMsg message;
    message.append("QryInfoOQLStr", "select * from y");
    auto plain = std::make_unique<RvDatum>(message);  // a message, but not as an RvMsg
    CVekQryInfo copying("S", nullptr, *plain, nullptr);
    EXPECT_NE(copying.RQIDatum()->data(), plain->data());
    plain.reset();
    EXPECT_EQ(textOf(copying), "select * from y");
}

TEST_F(Query, MayBeAStringButNothingElseAndNeedsSubjectAndNetwork) {
    CVekQryInfo query("S", nullptr, RvDatum(RVMSG_STRING, 4, "abc"), nullptr);
    EXPECT_EQ(textOf(query), "abc");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V0);
    const std::int32_t number = 5;
    query.RQIReplaceDatum(new RvDatum(RVMSG_INT, 4, &number));
    EXPECT_EQ(textOf(query), "(null)");
    const Report unexpected{-220439, "CVekQryInfo", 265,
                            "CVekQryInfo::RQIQuery Unexpected message type"};
    EXPECT_EQ(errors.take(), Reports{unexpected});
    query.RQIReplaceDatum(new RvMsg(0UL));
    EXPECT_EQ(textOf(query), "");
    EXPECT_EQ(query.RQIVersion(), VEK_TRANS_V0);
    query.RQIReplaceDatum(nullptr);
    EXPECT_EQ(textOf(query), "(null)");
    EXPECT_EQ(errors.take(), Reports{unexpected});

    EXPECT_EQ(CVekQryInfo::RQISendOQL(nullptr, "S", &ignoreData, &engine, nullptr, TRUE), -220402);
    EXPECT_EQ(CVekQryInfo::RQISendOQL("q", nullptr, &ignoreData, &engine, nullptr, TRUE), -220402);
    EXPECT_EQ(CVekQryInfo::RQISendOQL("q", "S", &ignoreData, nullptr, nullptr, TRUE), -220402);
    EXPECT_EQ(engine.RESendQueueLength(), 0);
    CVekQryInfo unnamed(nullptr, nullptr, RvDatum(), nullptr);
    EXPECT_STREQ(unnamed.RQISubject(), "");
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekQryInfo", 100, "CVekQryInfo::CVekQryInfo"}}));
}

TEST_F(Query, ASnoopHandsCopiesToItsPoolAndKeepsItsFirstTransport) {
    struct Pool : CVekServPool {
        Pool() : CVekServPool(0, nullptr) {}
        int RSPAddWorkDetail(void* item) override {
            work.reset(static_cast<CVekUpdWork*>(item));
            return result;
        }
        std::unique_ptr<CVekUpdWork> work;
        int result = 1;
    } pool;
    CVekSnoop snoop(&pool);
    snoop.onData("S", nullptr, RvDatum(RVMSG_STRING, 7, std::string("update").c_str()), nullptr);
    ASSERT_NE(pool.work, nullptr);
    EXPECT_EQ(pool.work->RUWSnooper(), &snoop);
    EXPECT_STREQ(static_cast<const char*>(pool.work->RUWDatum()->data()), "update");
    pool.result = -1;  // what it refuses is not the snoop's to delete
    snoop.RSProcessData("S", nullptr, RvDatum(), nullptr);
    EXPECT_EQ(errors.take(), (Reports{{-220439, "CVekSnoop", 138, "CVekSnoop::onData"}}));

    snoop.RSTransport(nullptr);
    EXPECT_EQ(snoop.RSTransport(), nullptr);
    snoop.RSTransport(&engine);
    const CVekTransport* const first = snoop.RSTransport();
    snoop.RSTransport(&engine);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(snoop.RSTransport(), first);
}

TEST_F(Query, ASnoopWithoutAPoolDropsAndSaysSo) {
    const DebugLevel level(4);
    EXPECT_EQ(outputOf([] { CVekSnoop(nullptr).onData(nullptr, nullptr, RvDatum(), nullptr); }),
              "CVekSnoop::CVekSnoop: WARNING! Initializing with a NULL CVekServPool\n"
              "CVekSnoop::onData: Snooped a packet on NULL\nCVekSnoop::RSProcessData\n"
              "CVekSnoop::RSProcessData: Updates ServPool is NULL!!!\n");
}

TEST_F(Query, AClientSenderSendsOnceAndIsGone) {
    CVekClient client(0, "NET");
    char text[] = "abc";
    auto* const sender = new CVekClientSender(strdup("S"), text, &ignoreData);
    EXPECT_EQ(sender->m_sendDatum->size(), 3U);
    EXPECT_EQ(sender->m_sendDatum->type(), static_cast<rvmsg_Type>(RVMSG_STRING));
    auto* const empty =
        new CVekClientSender(strdup("S"), static_cast<RvDatum*>(nullptr), &ignoreData);
    ASSERT_EQ(client.RRNAddTimer(1, sender), 1);
    ASSERT_EQ(client.RRNAddTimer(2, empty), 1);
    Reports reports;
    const std::string said = errorOutputOf([&] {
        EXPECT_TRUE(runUntil(client, [&] {
            for (const Report& report : errors.take()) reports.push_back(report);
            return reports.size() == 2;
        }));
    });
    EXPECT_EQ(said, "Rendezvous Error : failed to open RPC listener\n");
    EXPECT_EQ(
        reports,
        (Reports{{-220545, "CVekClientSender", 114, ""},
                 {-220552, "CVekClientSender", 120, "null datum in CVekClientSender::onTimer"}}));
}
