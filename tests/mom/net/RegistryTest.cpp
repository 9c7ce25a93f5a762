// What a network object keeps: subjects, senders, listeners, timers and I/O handlers.

#include "tests/support/Nets.h"
#include "tests/support/SocketPair.h"

namespace kvx::test {
namespace {

struct Registry : NoDaemon {
    std::string qualified(const char* subject) {
        const Text text(net.RRNDomainSubj(subject));
        return text ? text.get() : "";
    }

    TestNet net;
};

unsigned int watched(const SocketPair& pair) {
    return static_cast<unsigned int>(pair.near.get());
}

TEST_F(Registry, QualifiesASubjectWithTheDomainBehindIt) {
    EXPECT_EQ(qualified("A.B"), "A.B.TEST");
    EXPECT_EQ(net.RNSetDomain(strdup("")), 1);
    EXPECT_EQ(qualified("A.B"), "A.B");
    EXPECT_EQ(net.RRNDomainSubj(nullptr), nullptr);
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekRvNet", 1703, "CVekRvNet"}}));
}

TEST_F(Registry, ForgetsInboxesThatAreDereferencedOrTheOldestThatItSentRequestsTo) {
    const auto held = [&](const char* inbox) {
        const CVekPointer* const entry = net.m_senders->RTLGet(inbox);
        return entry == nullptr ? nullptr : static_cast<RvSender*>(entry->RPData());
    };
    errorOutputOf([&] {
        for (int round = 0; round < 4200; ++round) {
            net.RRNSend("_INBOX.B", datum, nullptr);
            ASSERT_NE(held("_INBOX.B.TEST"), nullptr) << round;
            if (round == 4199) break;
            const std::unique_ptr<RvSender> gone(held("_INBOX.B.TEST"));
            ASSERT_EQ(net.RRNDereferenceSender(gone.get()), 1);
        }
        net.RRNSend("_INBOX.A.0", datum, nullptr);
        EXPECT_NE(held("_INBOX.B.TEST"), nullptr);
        for (int i = 1; i < 4200; ++i)
            net.RRNSend(("_INBOX.A." + std::to_string(i)).c_str(), datum, nullptr);
    });
    EXPECT_LE(net.m_senders->RTLLength(), 4097);
    EXPECT_EQ(held("_INBOX.A.0.TEST"), nullptr);
    EXPECT_NE(held("_INBOX.A.4199.TEST"), nullptr);
}

TEST_F(Registry, OwnsTheCallbackOfATakenServiceUnlessItRefusesIt) {
    const std::string said = errorOutputOf([&] {
        EXPECT_EQ(net.RRNAddService("A.B", &ignoreData), -220542);
        EXPECT_EQ(net.RRNTakeService("A.B", &ignoreData), -220542);
    });
    EXPECT_NE(said, "");
    EXPECT_EQ(errors.take(), (Reports{{-220542, "CVekRvNet", 1648, ""}}));
    EXPECT_EQ(net.m_takenCallbacks->RSLength(), 0);
    EXPECT_EQ(net.RRNAddService(nullptr, &ignoreData), -220552);
    EXPECT_EQ(net.RRNAddExService(nullptr, &ignoreData), -220552);

    static int destroyed;
    destroyed = 0;
    struct Counted : OnData {
        ~Counted() override { ++destroyed; }
    };
    ASSERT_EQ(net.RRNTakeService("_RV.TAKEN", new Counted), 1);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(net.RRNOpenStorage(), 1);
    EXPECT_EQ(destroyed, 1);
    ASSERT_EQ(net.RRNTakeService("_RV.TAKEN", new Counted), 1);
    net.RRNTerminateSession();
    EXPECT_EQ(destroyed, 2);
}

TEST_F(Registry, RemovesAllListenersOfASubject) {
    ASSERT_EQ(net.RRNAddExService("_RV.TWICE", &ignoreData), 1);
    ASSERT_EQ(net.RRNAddExService("_RV.TWICE", &ignoreData), 1);
    const CVekAtom subject("_RV.TWICE");
    EXPECT_EQ(net.m_listeners->RTLIsMultiple(&subject), TRUE);
    const auto* const listener =
        static_cast<RvListener*>(net.m_listeners->RTLGet("_RV.TWICE")->RPData());
    EXPECT_EQ(net.RRNRemoveListener(listener->subject()), 1);  // a text that dies with it
    EXPECT_EQ(net.m_listeners->RTLGet("_RV.TWICE"), nullptr);
    EXPECT_EQ(net.RRNRemoveListener("_RV.TWICE"), 1);
    EXPECT_EQ(net.RRNRemoveListener(nullptr), -220402);
}

TEST_F(Registry, ACallbackMayRemoveItsOwnListenerAndEndTheSession) {
    int calls = 0;
    OnData once([&](const char*, RvSender*, const RvDatum&, RvListener* listener) {
        ++calls;
        EXPECT_EQ(net.RRNRemoveListener(listener->subject()), 1);
    });
    ASSERT_EQ(net.RRNAddExService("_RV.ONCE", &once), 1);
    const rv_Session session = net.m_session->handle();
    rv_Deliver(session, "_RV.ONCE", nullptr, RVMSG_STRING, 2, "x");
    rv_Deliver(session, "_RV.ONCE", nullptr, RVMSG_STRING, 2, "x");
    EXPECT_EQ(calls, 1);
    OnData last(
        [&](const char*, RvSender*, const RvDatum&, RvListener*) { net.RRNTerminateSession(); });
    ASSERT_EQ(net.RRNAddExService("_RV.LAST", &last), 1);
    rv_Deliver(session, "_RV.LAST", nullptr, RVMSG_STRING, 2, "x");
    EXPECT_EQ(net.m_listeners, nullptr);
}

TEST_F(Registry, ForgetsWhatIsDereferencedWithoutDeletingIt) {
    int status = 0;
    const std::unique_ptr<RvListener> listener(
        net.RRNNewListener(&status, "_RV.MINE", &ignoreData, nullptr));
    ASSERT_NE(listener, nullptr);
    EXPECT_EQ(net.RRNStoreListener(nullptr), -220552);
    EXPECT_EQ(net.RRNStoreListener(listener.get()), 1);
    EXPECT_EQ(net.RRNStoreListener(listener.get()), -220566);  // it would be deleted twice
    EXPECT_EQ(net.RRNDereferenceListener(listener.get()), 1);
    EXPECT_EQ(net.RRNDereferenceListener(listener.get()), -220547);
    EXPECT_EQ(net.RRNDereferenceListener(nullptr), -220402);
    EXPECT_STREQ(listener->subject(), "_RV.MINE");
    EXPECT_EQ(net.RRNDereferenceSender(nullptr), -220402);
}

TEST_F(Registry, KeepsNoSenderWhoseFirstSendFailedAndSendsNoRequestWithoutOne) {
    EXPECT_EQ(net.RRNSend("A", datum), -220545);
    EXPECT_EQ(net.m_senders->RTLLength(), 0);
    EXPECT_EQ(net.RRNSend(nullptr, datum), -220552);
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekRvNet", 1703, "CVekRvNet"},
                                      {-220552, "CVekRvNet", 703, ""}}));
    // A registered null is what a sender that could not be made leaves behind.
    ASSERT_EQ(net.m_senders->RTLAdd("A.TEST", static_cast<void*>(nullptr)), 1);
    EXPECT_EQ(net.RRNSend("A", datum, &ignoreData), 1);
    EXPECT_EQ(net.RRNSend("A", datum), -220545);
    const std::string said =
        errorOutputOf([&] { EXPECT_EQ(net.RRNSend("B", datum, &ignoreData), -220545); });
    EXPECT_EQ(said, "Rendezvous Error : failed to open RPC listener\n");
    EXPECT_NE(net.m_senders->RTLGet("B.TEST"), nullptr);
}

TEST_F(Registry, SendsOnTheMainThreadOnly) {
    char subject[] = "A";
    std::thread([&] {
        EXPECT_EQ(net.RRNSend("A", datum), -220425);
        EXPECT_EQ(net.RRNSend("A", datum, &ignoreData), -220425);
        EXPECT_EQ(net.RRNSendOnSubject(subject, datum), nullptr);
    }).join();
    EXPECT_EQ(errors.take(), (Reports{{-220425, "CVekRvNet", 798, ""}}));
    EXPECT_EQ(net.RRNSendOnSubject(nullptr, datum), nullptr);
}

TEST_F(Registry, RemovesTimersByIdentityInAnyOrder) {
    std::vector<RvTimer*> timers;
    for (int i = 0; i < 3; ++i) ASSERT_EQ(net.RRNAddRepeatTimer(100000, &ignoreTimer), 1);
    for (CVekListable* entry = net.m_timers->RDLHead(); entry != nullptr;
         entry = net.m_timers->RDLGetNext(entry)) {
        timers.push_back(static_cast<RvTimer*>(static_cast<CVekPointer*>(entry)->RPData()));
    }
    EXPECT_EQ(timers.at(0)->isRepeating(), rv_TRUE);
    EXPECT_EQ(net.RRNRemoveTimer(nullptr), -220402);
    EXPECT_EQ(net.RRNRemoveTimer(net.m_queueTimer.get()), -220547);
    for (const int i : {1, 2, 0}) EXPECT_EQ(net.RRNRemoveTimer(timers[i]), 1);
    EXPECT_EQ(net.m_timers->RDLLength(), 0);
    EXPECT_EQ(net.RRNAddTimer(5, nullptr), -220552);
}

TEST_F(Registry, KeepsTheUsersTimersThatFiredAndDropsItsOwn) {
    constexpr int kTimers = 200;
    int fired = 0;
    OnTimer next([&](RvTimer*) {
        net.RRNAddPostInitTimer();
        if (++fired < kTimers) net.RRNAddTimer(0, &next);
    });
    ASSERT_EQ(net.RRNAddTimer(1, &next), 1);
    ASSERT_TRUE(runUntil(net, [&] { return fired == kTimers; }));
    EXPECT_TRUE(runUntil(net, [&] { return net.m_timers->RDLLength() == kTimers; }));
}

TEST_F(Registry, ATimerMayRemoveItself) {
    OnTimer once([&](RvTimer* timer) { EXPECT_EQ(net.RRNRemoveTimer(timer), 1); });
    ASSERT_EQ(net.RRNAddTimer(1, &once), 1);
    ASSERT_EQ(net.RRNAddRepeatTimer(1, &once), 1);
    ASSERT_TRUE(runUntil(net, [&] { return once.calls == 2; }));
    EXPECT_TRUE(runUntil(net, [&] { return net.m_timers->RDLLength() == 0; }));
    EXPECT_EQ(once.calls, 2);
}

TEST_F(Registry, TimersOfAnOldListGoOnFiring) {
    ASSERT_EQ(net.RRNAddRepeatTimer(1, &ignoreTimer), 1);
    EXPECT_EQ(net.RRNOpenStorage(), 1);
    EXPECT_EQ(net.m_timers->RDLLength(), 0);
    EXPECT_TRUE(runUntil(net, [&] { return ignoreTimer.calls > 3; }));
}

TEST_F(Registry, IsEmptiedByPostedWorkWithoutLosingWhatIsPosted) {
    int done = 0;
    ASSERT_EQ(net.RRNAllowPosts(), 1);
    net.RRNPost([&] { done += net.RRNOpenStorage(); });
    net.RRNPost([&] { net.RRNPost([&] { ++done; }); });
    EXPECT_TRUE(runUntil(net, [&] { return done == 2; }));
}

TEST_F(Registry, WatchesForReadabilityWhateverWasChosen) {
    const SocketPair pair;
    RvIO* seen = nullptr;
    OnIO callback([&](RvIO* io) {
        seen = io;
        net.RRNStopLoop();
    });
    EXPECT_EQ(net.RRNAddIOHandle(watched(pair), FALSE, TRUE, TRUE, &callback), 1);
    EXPECT_EQ(errors.take(), (Reports{{-220462, "CVekRvNet", 891,
                                       "The Type of IO handler has already been chosen.\n"}}));
    pair.farSends("x");
    net.RRNDoIt();
    ASSERT_NE(seen, nullptr);
    EXPECT_EQ(seen->eventType(), RVEVM_READ);
    EXPECT_EQ(net.RRNRemoveIO(watched(pair)), 1);
    EXPECT_EQ(net.RRNRemoveIO(watched(pair)), 1);
    EXPECT_EQ(net.m_ioHandlers->RTLLength(), 0);
}

TEST_F(Registry, GivesASecondHandlerOfOneSocketTheListsCode) {
    const SocketPair pair;
    OnIO callback;
    int status = 0;
    ASSERT_NE(net.RRNNewIO(&status, watched(pair), RVEVM_READ, &callback, nullptr), nullptr);
    EXPECT_EQ(status, 1);
    const std::unique_ptr<RvIO> second(
        net.RRNNewIO(&status, watched(pair), RVEVM_WRITE, &callback, nullptr));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(status, -220566);
    std::thread([&] { EXPECT_EQ(net.RRNRemoveIO(99999), -220425); }).join();
    EXPECT_EQ(errors.take(), (Reports{{-220425, "CVekRvNet", 1462, ""}}));
}

}  // namespace
}  // namespace kvx::test
