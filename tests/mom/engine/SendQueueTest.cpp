// An engine's sends and its queue, without a bus.

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekInitTimedClb.h"
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
