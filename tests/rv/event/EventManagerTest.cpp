#include "platform/Process.h"
#include "platform/Signals.h"
#include "rv/event/EventManagerExtras.h"
#include "tests/rv/event/LoopFixture.h"
#include "tests/support/SocketPair.h"

namespace kvx::test {
namespace {

using platform::ManualClock;

class EventManager : public LoopFixture {
  protected:
    ManualClock clock;
};

class EventManagerInRealTime : public LoopFixture {
  protected:
    // Runs the loop until another thread, which begins when it runs, ends it.
    std::string loopUntil(const Action& end) {
        std::atomic<bool> begun = false;
        addTimer(0, "a", [&] { begun = true; });
        std::thread other([&] {
            begun.wait(false);
            end();
        });
        addTimer(0, "b", [&] { begun.notify_all(); });
        const std::string called = loop();
        other.join();
        return called;
    }
};

TEST(ManagerHandle, ThatIsNullDestroyedOrMadeUpNamesNothingForEver) {
    rvevm_Manager manager = nullptr;
    std::vector<rvevm_Manager> handles = {nullptr, reinterpret_cast<rvevm_Manager>(&manager)};
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(rvevm_Create(&manager), 0);
        ASSERT_EQ(rvevm_Destroy(manager), 0);
        handles.push_back(manager);
    }
    ASSERT_EQ(rvevm_Create(&manager), 0);
    rvevm_Id id = nullptr;
    const auto callback = [](void*, void*, int, void*) {};
    for (rvevm_Manager handle : handles) {
        EXPECT_EQ(rvevm_Destroy(handle), 10);
        EXPECT_EQ(rvevm_MainLoop(handle), 10);
        EXPECT_EQ(rvevm_Stop(handle), 10);
        EXPECT_EQ(rvevm_AddTimer(handle, &id, 1, callback, nullptr), 10);
        EXPECT_EQ(rvevm_AddIO(handle, &id, 0, RVEVM_READ, callback, nullptr), 10);
        EXPECT_EQ(rvevm_RemoveSignal(handle, id), 10);
    }
    EXPECT_EQ(rvevm_Destroy(manager), 0);
    EXPECT_EQ(rvevm_Create(nullptr), 2);
}

TEST_F(EventManager, RefusesBadTimers) {
    rvevm_Id id = nullptr;
    EXPECT_EQ(rvevm_AddTimer(manager, nullptr, 1, ignore, nullptr), 2);
    EXPECT_EQ(rvevm_AddTimer(manager, &id, 1, nullptr, nullptr), 5);
    EXPECT_EQ(rvevm_AddRepeatTimer(manager, &id, 0, ignore, nullptr), 7);
    ASSERT_EQ(rvevm_AddRepeatTimer(manager, &id, 9, ignore, nullptr), 0);
    EXPECT_EQ(rvevm_ResetTimer(manager, id, 0), 7);
    EXPECT_EQ(rvevm_RemoveIO(manager, id), 2);  // an id of another kind
    EXPECT_EQ(rvevm_RemoveTimer(manager, id), 0);
    EXPECT_EQ(rvevm_RemoveTimer(manager, id), 2);
    EXPECT_EQ(rvevm_ResetTimer(manager, id, 5), 2);
}

TEST_F(EventManager, SleepsASecondAStepWithNothingRegistered) {
    const auto start = clock.now();
    std::thread stopper([&] {
        while (clock.now() < start + 3'000) std::this_thread::yield();
        rvevm_Stop(manager);
    });
    EXPECT_EQ(rvevm_MainLoop(manager), 0);
    stopper.join();
    EXPECT_EQ((clock.now() - start) % 1'000, 0);
}

TEST_F(EventManager, CallsEveryDueTimerEvenWhenOneStopsTheLoop) {
    addTimer(5, "a", [&] { stop(); });
    addTimer(5, "b");
    addTimer(6, "c", [&] { stop(); });
    EXPECT_EQ(loop(), "ab");
    EXPECT_EQ(loop(), "c");
}

TEST_F(EventManager, RefusesASecondLoopInsideItsOwn) {
    addTimer(0, "a", [&] {
        EXPECT_TRUE(event::isLooping(manager));
        EXPECT_EQ(rvevm_MainLoop(manager), 10);
        stop();
        EXPECT_EQ(rvevm_MainLoop(manager), 10);  // stopped, but not returned
    });
    EXPECT_EQ(loop(), "a");
    EXPECT_FALSE(event::isLooping(manager));
}

TEST_F(EventManager, DestroyedByAnyCallbackCallsNothingMoreAndGoesWithTheLoop) {
    const SocketPair pair;
    const Action destroy = [this] {
        rvevm_Manager dying = manager;
        destroyInsideTheLoop();
        rvevm_Id id = nullptr;
        EXPECT_EQ(rvevm_AddTimer(dying, &id, 1, ignore, nullptr), 10);
    };
    addTimer(0, "t", destroy);
    addTimer(0, "never");
    addIo(pair.near.get(), RVEVM_WRITE, "never");
    EXPECT_EQ(loop(), "t");
    ASSERT_EQ(rvevm_Create(&manager), 0);
    pair.farSends("x");
    addIo(pair.near.get(), RVEVM_READ, "r", destroy);
    addIo(pair.near.get(), RVEVM_WRITE, "never");
    EXPECT_EQ(loop(), "r");
    ASSERT_EQ(rvevm_Create(&manager), 0);
    addSignal(SIGUSR1, "1", destroy);
    addSignal(SIGUSR2, "never");
    addIo(pair.near.get(), RVEVM_WRITE, "never");
    addTimer(0, "", [] {
        for (const int signal : {SIGUSR1, SIGUSR2}) platform::raiseSignal(signal);
    });
    EXPECT_EQ(loop(), "1");
}

TEST_F(EventManagerInRealTime, AnotherThreadOrASignalEndsEveryWait) {
    const SocketPair pair;
    const Action stopIt = [this] { stop(); };
    EXPECT_EQ(loopUntil(stopIt), "ab");
    addIo(pair.near.get(), RVEVM_READ, "r");
    addTimer(3'600'000, "late");
    EXPECT_EQ(loopUntil(stopIt), "ab");
    addSignal(SIGUSR1, "1", stopIt);
    EXPECT_EQ(loopUntil([] { platform::sendSignal(platform::processId(), SIGUSR1); }), "ab1");
}

TEST(SharedManager, ForgetsAManagerThatWasDestroyed) {
    int code = -1;
    rvevm_Manager first = event::acquireSharedManager(code);
    ASSERT_EQ(rvevm_Destroy(first), 0);
    rvevm_Manager second = event::acquireSharedManager(code);
    ASSERT_NE(second, nullptr);
    event::releaseSharedManager(second);
}

}  // namespace
}  // namespace kvx::test
