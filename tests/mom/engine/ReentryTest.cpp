// User code that the net runs, and what it may do there: call the same thing again, end the
// session, destroy the engine.

#include <unistd.h>

#include "mom/engine/CVekEngine.h"
#include "mom/engine/CVekInitTimedClb.h"
#include "tests/support/Daemon.h"
#include "tests/support/Nets.h"

using namespace kvx::test;

namespace {

// Runs `body` in a process that a deadlock does not outlive.
void expectToEnd(const std::function<void()>& body) {
    EXPECT_EXIT(
        {
            alarm(20);  // seconds
            body();
            std::_Exit(testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

// Runs `act` at one of the error reports to come of a process that ends with its body.
void atReport(std::function<void()> act, int which) {
    static std::function<void()> action;
    static std::atomic<int> left;
    action = std::move(act);
    left = which;
    CVekError::SetHandler([](int, const char*, int, const char*) {
        if (--left == 0) action();
    });
}

using EnginePtr = std::unique_ptr<CVekEngine>;

EnginePtr newEngine() {
    return std::make_unique<CVekEngine>(1, "grp", "NET", SERV_UNKNOWN);
}

void drainRequests(CVekEngine& engine) {
    engine.m_queueHandler->onTimer(nullptr);
}

// An engine of which the next message for the daemon makes a fast producer, which is told at once.
class Brink {
  public:
    Brink(const Daemon& daemon, std::function<void(EnginePtr&)> act) : act_(std::move(act)) {
        EXPECT_EQ(engine->RRNAddExService(kFastProducer, &told_), 1);
        EXPECT_EQ(engine->RRNAddService("A", &ignore), 1);
        // Once something waits everything does, until the main loop turns.
        kill(daemon.pid(), SIGSTOP);
        const std::string body(100'000, 'b');
        const RvDatum large(RVMSG_OPAQUE, static_cast<rvmsg_Size>(body.size()), body.data());
        unsigned long waiting = 0;
        while (rv_Pending(engine->m_session->handle(), &waiting, nullptr) == 0 && waiting == 0) {
            engine->RESend("A", large, TRUE);
        }
        kill(daemon.pid(), SIGCONT);
        while (told_.messages == 0) engine->RESend("A", datum, TRUE);
        approach();
        EXPECT_EQ(told_.messages, 1);
        told_.call = [this](auto...) { std::exchange(act_, nullptr)(engine); };
    }
    // One condition in a hundred is told.
    void approach() const {
        for (int i = 1; i < 100; ++i) engine->RESend("A", datum, TRUE);
    }
    void actAgain(std::function<void(EnginePtr&)> act) {
        approach();
        act_ = std::move(act);
    }
    void onlyCount() { told_.call = nullptr; }
    bool hasActed() const { return act_ == nullptr; }

    EnginePtr engine = newEngine();
    RvDatum datum{RVMSG_STRING, 2, "x"};
    OnData ignore;

  private:
    static constexpr char kFastProducer[] = "_RV.WARN.SYSTEM.CLIENT.FASTPRODUCER";
    std::function<void(EnginePtr&)> act_;
    OnData told_;
};

struct Reentry : testing::Test {
    Daemon daemon;
    Home home{daemon.text()};
    RvDatum datum{RVMSG_STRING, 2, "y"};
    OnData ignore;
};

// What sends something for the daemon, on a sender that there is and on a new one.
const std::vector<std::function<void(Brink&)>> kCalls = {
    [](Brink& on) { on.engine->RESend("A", on.datum, TRUE); },
    [](Brink& on) { on.engine->RESend("B", on.datum, TRUE); },
    [](Brink& on) { delete on.engine->RESend("A", on.datum, &on.ignore); },
    [](Brink& on) { delete on.engine->RESend("B", on.datum, &on.ignore); },
    [](Brink& on) { on.engine->RRNSend("A", on.datum); },
    [](Brink& on) { on.engine->RRNSend("B", on.datum); },
    [](Brink& on) { on.engine->RRNSend("A", on.datum, &on.ignore); },
    [](Brink& on) { on.engine->RRNSend("B", on.datum, &on.ignore); },
    [](Brink& on) { on.engine->RRNAddService("B", &on.ignore); },
    [](Brink& on) { on.engine->RRNRemoveListener("A.NET"); },
    [](Brink& on) {
        CVekEngine& engine = *on.engine;
        engine.REAddToSendQueue("B", new RvDatum(on.datum), &on.ignore, TRUE);
        engine.REAddToSendQueue("B", new RvDatum(on.datum), nullptr, TRUE);
        CVekInitTimedClb drain(2);
        int status = 0;
        const std::unique_ptr<RvTimer> timer(engine.RRNNewTimer(&status, 1, &drain, &engine));
        drain.onTimer(timer.get());
    },
};

}  // namespace

TEST_F(Reentry, ASendMayEndTheSessionOrTheEngine) {
    const ErrorRecorder errors;
    for (const auto& call : kCalls) {
        Brink ended(daemon, [](EnginePtr& engine) { engine->RRNTerminateSession(); });
        call(ended);
        EXPECT_TRUE(ended.hasActed());
        EXPECT_EQ(ended.engine->m_senders, nullptr);
        Brink destroyed(daemon, [](EnginePtr& engine) { engine.reset(); });
        call(destroyed);
        EXPECT_TRUE(destroyed.hasActed());
    }
}

TEST_F(Reentry, ASendMayRunTheSameSend) {
    ErrorRecorder errors;
    Brink plain(daemon, [&](EnginePtr& engine) { EXPECT_EQ(engine->RESend("B", datum, TRUE), 1); });
    EXPECT_EQ(plain.engine->RESend("B", plain.datum, TRUE), 1);
    Brink net(daemon, [&](EnginePtr& engine) { EXPECT_EQ(engine->RRNSend("B", datum), 1); });
    EXPECT_EQ(net.engine->RRNSend("B", net.datum), 1);
    Brink request(daemon, [&](EnginePtr& engine) { delete engine->RESend("B", datum, &ignore); });
    delete request.engine->RESend("B", request.datum, &ignore);
    for (const Brink* on : {&plain, &net, &request}) {
        EXPECT_TRUE(on->hasActed());
        EXPECT_EQ(on->engine->m_senders->RTLLength(), 2);
    }
    EXPECT_EQ(errors.take(), Reports{});
}

TEST_F(Reentry, ClosingTheSessionOfItsGroupMayDestroyTheEngine) {
    for (const auto leave : {&CVekEngine::REInitSession, &CVekEngine::RELeaveGroup}) {
        EnginePtr engine = newEngine();
        const rv_Hook destroy = [](rv_Session, const void*, void* owner) {
            static_cast<EnginePtr*>(owner)->reset();
            return 0;
        };
        rv_AddHook(engine->m_ftSession->handle(), RV_HOOK_CLOSE, destroy, &engine);
        (*engine.*leave)();
        EXPECT_EQ(engine, nullptr);
    }
}

TEST_F(Reentry, NoInboxSenderDiesInItsOwnSend) {
    char subject[] = "_INBOX.MINE";
    Brink on(daemon, [](EnginePtr&) {});
    ASSERT_EQ(on.engine->RESend(subject, datum, FALSE), 1);
    const void* const mine = on.engine->m_senders->RTLGet(subject)->RPData();
    on.actAgain([&](EnginePtr& engine) {
        on.onlyCount();
        for (int i = 0; i < 4200; ++i) {
            const std::string inbox = "_INBOX.A." + std::to_string(i);
            ASSERT_EQ(engine->RESend(inbox.c_str(), datum, FALSE), 1);
        }
    });
    EXPECT_EQ(on.engine->RRNSendOnSubject(subject, datum), mine);
    EXPECT_TRUE(on.hasActed());
    ASSERT_NE(on.engine->m_senders->RTLGet(subject), nullptr);
    EXPECT_NE(on.engine->m_senders->RTLGet("A.NET"), nullptr) << "no inbox";
    EXPECT_NE(on.engine->m_senders->RTLGet("_INBOX.A.4199"), nullptr);
    EXPECT_LE(on.engine->m_senders->RTLLength(), 4098);
}

TEST_F(Reentry, AListenOfADrainMayEndTheSessionOrTheEngine) {
    const ErrorRecorder errors;
    for (const bool destroys : {false, true}) {
        Brink on(daemon, [&](EnginePtr& engine) {
            engine->RRNTerminateSession();
            if (destroys) engine.reset();
        });
        for (const char* subject : {"B", "C"}) {
            on.engine->m_requests->RSPush(
                new SVekRvQueueListener{VEK_QUEUE_LISTENER, 7, subject, 0, &on.ignore, nullptr});
        }
        errorOutputOf([&] { drainRequests(*on.engine); });
        EXPECT_TRUE(on.hasActed());
    }
}

TEST_F(Reentry, AHandlerOfADrainsReportMayCallAnything) {
    OnTimer ignoreTimer;
    const std::vector<std::function<void(CVekEngine&)>> calls = {
        [&](CVekEngine& e) { e.REAddToSendQueue("A", new RvDatum(datum), nullptr, TRUE); },
        [&](CVekEngine& e) { EXPECT_EQ(e.RENextSendItem(), nullptr); },
        [&](CVekEngine& e) { EXPECT_EQ(e.RESendQueueLength(), 0); },
        [&](CVekEngine& e) { EXPECT_EQ(e.RRNTakeService("A", new OnData), 1); },
        [&](CVekEngine& e) { EXPECT_EQ(e.RRNAddTimer(5, &ignoreTimer), 1); },
        [&](CVekEngine& e) { EXPECT_EQ(e.RESend("A", datum, TRUE), 1); },
        [&](CVekEngine& e) { drainRequests(e); },
        [&](CVekEngine& e) { e.RRNTerminateSession(); },
    };
    for (const auto& call : calls) {
        expectToEnd([&] {
            const EnginePtr engine = newEngine();
            atReport([&] { call(*engine); }, 1);
            engine->m_requests->RSPush(
                new SVekRvQueueListener{VEK_QUEUE_LISTENER, 7, "A..B", 0, &ignore, nullptr});
            drainRequests(*engine);
        });
    }
}

TEST_F(Reentry, AHandlerOnTheAskingThreadMayAskAgain) {
    expectToEnd([&] {
        const EnginePtr engine = newEngine();
        int status = 0;
        std::unique_ptr<RvSender> sender;
        std::atomic<bool> done = false;
        // The main thread reports the failure first, the asking one then.
        atReport([&] { sender.reset(engine->RRNNewSender(&status, "A", nullptr)); }, 2);
        std::thread asking([&] {
            EXPECT_EQ(engine->RRNNewListener(&status, "A..B", &ignore, nullptr), nullptr);
            done = true;
        });
        EXPECT_TRUE(runUntil(*engine, [&] { return done.load(); }));
        asking.join();
        EXPECT_NE(sender, nullptr);
    });
}

TEST_F(Reentry, QueueingDoesNotWaitForASendThatRunsUserCode) {
    expectToEnd([&] {
        Brink on(daemon, [&](EnginePtr& engine) {
            std::thread([&] {
                EXPECT_EQ(engine->REAddToSendQueue("B", new RvDatum(datum), nullptr, TRUE), 1);
            }).join();
        });
        EXPECT_EQ(on.engine->RESend("A", on.datum, TRUE), 1);
        EXPECT_EQ(on.engine->RESendQueueLength(), 1);
    });
}

TEST_F(Reentry, AReplyListenerWhoseCallbackIsGoneIsRemovedByLaterRequests) {
    const EnginePtr engine = newEngine();
    const int before = engine->m_listeners->RTLLength();
    OnData alive;
    ASSERT_EQ(engine->RRNSend("A", datum, &alive), 1);
    for (int i = 0; i < 200; ++i) {
        OnData gone;
        if (i % 2 == 0) {
            ASSERT_EQ(engine->RRNSend("A", datum, &gone), 1);
        } else {
            CVekSendQueueItem item("A", new RvDatum(datum), &gone, engine.get(), 2000);
            ASSERT_EQ(item.RSQIDeQueueIt(), 1);
        }
    }
    EXPECT_LE(engine->m_listeners->RTLLength(), before + 1 + 3);
    int kept = 0;
    const std::unique_ptr<CVekDoubleList> all(engine->m_listeners->RTLIterator());
    for (CVekListable* one = all->RDLHead(); one != nullptr; one = all->RDLGetNext(one)) {
        const auto* const listener = static_cast<CVekPointer*>(one)->RPData();
        kept += static_cast<const RvListener*>(listener)->callback() == &alive ? 1 : 0;
    }
    EXPECT_EQ(kept, 1);
}
