// Bus objects for other threads: the request stack, its handler and the answers.

#include "tests/support/Nets.h"
#include "tests/support/SocketPair.h"

namespace kvx::test {
namespace {

struct Activity : NoDaemon {
    // Runs `work` on another thread while the main loop serves its requests.
    void serve(const std::function<void()>& work) {
        std::atomic<bool> done = false;
        std::thread worker([&] {
            work();
            done = true;
        });
        EXPECT_TRUE(runUntil(net, [&] { return done.load(); }));
        worker.join();
    }

    void drain() { net.m_queueHandler->onTimer(nullptr); }

    // Waits until another thread's request stands on the stack.
    void awaitRequest() {
        for (int waiting = 0; waiting != 1; std::this_thread::yield()) {
            const CVekAutoMutex guard(net.m_requestMutex);
            waiting = net.m_requests->RSLength();
        }
    }

    TestNet net;
    OnIO ignoreIO;
};

TEST_F(Activity, CreatesOnTheMainThreadAtOnceOrSaysWhyNot) {
    int status = 0;
    const std::unique_ptr<RvSender> sender(net.RRNNewSender(&status, "A.B", nullptr));
    EXPECT_EQ(status, 1);
    EXPECT_STREQ(sender->subject(), "A.B");
    const std::unique_ptr<RvListener> listener(
        net.RRNNewListener(&status, "_RV.A", 70UL, &ignoreData, nullptr));
    EXPECT_NE(listener, nullptr);
    EXPECT_EQ(net.m_requests->RSLength(), 0);
    const std::string said = errorOutputOf([&] {
        EXPECT_EQ(net.RRNNewListener(&status, "A..B", &ignoreData, nullptr), nullptr);
        EXPECT_EQ(status, -220370);
        EXPECT_EQ(net.RRNNewIO(&status, 99999, RVEVM_READ, &ignoreIO, nullptr), nullptr);
    });
    EXPECT_NE(said.find("Failed to monitor on fid : 99999\n"), std::string::npos) << said;
    EXPECT_EQ(said.rfind(rv_ErrorText(21), 0), 0U) << said;
}

TEST_F(Activity, AnswersWithAFailureWithoutWaitingForTheBound) {
    const std::string said = errorOutputOf([&] {
        serve([&] {
            int status = 0;
            EXPECT_EQ(net.RRNNewListener(&status, "A..B", 9UL, &ignoreData, nullptr), nullptr);
            EXPECT_EQ(status, -220370);
        });
    });
    EXPECT_EQ(errors.take(),
              (Reports{{-220370, "CVekRvQueueHandler", 303, ""},
                       {-220370, "CVekRvNet", 1263,
                        "addition of a listener for subject/timeout A..B/9 failed"}}));
}

TEST_F(Activity, RefusesRequestsWhenNobodyListens) {
    net.RRNTerminateSession();
    std::thread([&] {
        int status = 0;
        EXPECT_EQ(net.RRNNewTimer(&status, 5, &ignoreTimer, nullptr), nullptr);
        EXPECT_EQ(status, -220402);
    }).join();
    EXPECT_EQ(
        errors.take(),
        (Reports{{-220402, "CVekRvNet", 1395,
                  "it seems that the main thread is not listening for new activity requests"}}));
}

TEST_F(Activity, ARequesterDoesNotWaitForASessionThatEnded) {
    for (const bool opensAgain : {true, false}) {
        std::thread asking([&] {
            int status = 0;
            EXPECT_EQ(net.RRNNewTimer(&status, 5, &ignoreTimer, nullptr), nullptr);
            EXPECT_EQ(status, -220371);
        });
        awaitRequest();
        net.RRNTerminateSession();
        if (opensAgain) {
            EXPECT_EQ(net.RRNInitSession(), 1);
        }
        asking.join();
        EXPECT_EQ(errors.take(), (Reports{{-220371, "CVekRvNet", 1365, ""}}));
    }
}

TEST_F(Activity, ARequestThatIsServedLateOwnsItsSubjects) {
    const std::string subject = "A.B";
    const auto owns = [&](const auto& text) { return text == subject && text != subject.c_str(); };
    std::thread asking([&] {
        int status = 0;
        delete net.RRNNewSender(&status, subject.c_str(), subject.c_str());
        delete net.RRNNewListener(&status, subject.c_str(), &ignoreData, nullptr);
    });
    awaitRequest();
    auto* const sender = static_cast<SVekRvQueueSender*>(net.m_requests->RSPop());
    EXPECT_TRUE(owns(sender->m_subject) && owns(sender->m_replySubject));
    net.m_requests->RSPush(sender);
    drain();
    awaitRequest();
    auto* const listener = static_cast<SVekRvQueueListener*>(net.m_requests->RSPop());
    EXPECT_TRUE(owns(listener->m_subject));
    net.m_requests->RSPush(listener);
    drain();
    asking.join();
}

TEST_F(Activity, RefusesInvalidRequestsAndReportsAHandlerWithoutANet) {
    std::int32_t unknown = 3;
    for (void* const request : std::initializer_list<void*>{
             new SVekRvQueueSender{VEK_QUEUE_SENDER, 7, nullptr, nullptr},
             new SVekRvQueueListener{VEK_QUEUE_LISTENER, 7, "A", 0, nullptr, nullptr},
             new SVekRvQueueIO{VEK_QUEUE_IO, 7, ~0U, &ignoreIO, RVEVM_READ, nullptr},
             new SVekRvQueueTimer{VEK_QUEUE_TIMER, -1, 5, rv_FALSE, &ignoreTimer, nullptr},
             &unknown}) {
        net.m_requests->RSPush(request);
    }
    drain();
    std::vector<int> lines;
    for (const Report& report : errors.take()) lines.push_back(report.line);
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<int>{151, 197, 244, 289, 336}));
    EXPECT_EQ(net.m_answers->RTLLength(), 0);
    EXPECT_EQ(net.m_requests->RSLength(), 0);
    CVekRvQueueHandler(nullptr).onTimer(nullptr);
    EXPECT_EQ(errors.take(), (Reports{{-220552, "CVekRvQueueHandler", 84, ""}}));
}

TEST_F(Activity, KeepsALateAnswerForTheThreadsNextRequest) {
    std::atomic<int> threadId = 0;
    std::atomic<bool> posted = false;
    std::thread late([&] {
        threadId = static_cast<int>(CVekThread::RTId());
        while (!posted) std::this_thread::yield();
        int status = 0;
        const std::unique_ptr<RvSender> sender(net.RRNNewSender(&status, "ASKED.FOR", nullptr));
        ASSERT_NE(sender, nullptr);
        EXPECT_STREQ(sender->subject(), "CAME.LATE");
    });
    while (threadId == 0) std::this_thread::yield();
    net.m_requests->RSPush(new SVekRvQueueSender{VEK_QUEUE_SENDER, threadId, "CAME.LATE", nullptr});
    drain();
    posted = true;
    late.join();
    drain();  // the answer to what was asked for stays behind, and goes with the net
    EXPECT_EQ(net.m_answers->RTLLength(), 1);
}

TEST_F(Activity, CreatesAllKindsForEightThreadsAtOnce) {
    constexpr int kThreads = 8;
    const std::array<SocketPair, kThreads> sockets;
    std::array<std::unique_ptr<RvSender>, kThreads> senders;
    std::atomic<int> made = 0;
    serve([&] {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([&, i] {
                int status = 0;
                senders[i].reset(net.RRNNewSender(&status, "A.B", "C"));
                EXPECT_STREQ(senders[i]->replySubject(), "C");
                RvListener* const listener =
                    net.RRNNewListener(&status, "_RV.MANY", &ignoreData, nullptr);
                const auto socket = static_cast<unsigned int>(sockets[i].near.get());
                RvIO* const io = net.RRNNewIO(&status, socket, RVEVM_EXCEPTION, &ignoreIO, nullptr);
                EXPECT_EQ(status, 1);
                // A second handler of the socket is kept beside the first.
                EXPECT_EQ(net.RRNAddIOHandle(socket, TRUE, FALSE, FALSE, &ignoreIO), 1);
                const int timer = net.RRNAddRepeatTimer(1000, &ignoreTimer);
                if (io && timer == 1 && net.RRNStoreListener(listener) == 1) ++made;
            });
        }
        for (std::thread& thread : threads) thread.join();
    });
    EXPECT_EQ(made, kThreads);
    EXPECT_EQ(net.m_answers->RTLLength(), 0);
    EXPECT_EQ(net.m_ioHandlers->RTLLength(), kThreads);
    EXPECT_EQ(net.RRNRemoveIO(static_cast<unsigned int>(sockets[0].near.get())), 1);
    EXPECT_EQ(net.m_ioHandlers->RTLLength(), kThreads - 1);
    EXPECT_EQ(errors.take(), Reports{});
    net.RRNTerminateSession();
}

}  // namespace
}  // namespace kvx::test
