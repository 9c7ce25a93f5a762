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
    // Stops the loop from another thread once it runs.
    void expectStopFromAnotherThreadToEndTheLoop() {
        std::atomic<bool> begun = false;
        addTimer(0, "a", [&] { begun = true; });
        std::thread stopper([&] {
            begun.wait(false);
            rvevm_Stop(manager);
        });
        addTimer(0, "b", [&] { begun.notify_all(); });
        EXPECT_EQ(loop(), "ab");
        stopper.join();
    }
};

TEST(EventManagerCodes, ANullManagerIsNotInitialised) {
    rvevm_Id id = nullptr;
    const auto callback = [](void*, void*, int, void*) {};
    EXPECT_EQ(rvevm_Create(nullptr), 2);
    EXPECT_EQ(rvevm_Destroy(nullptr), 10);
    EXPECT_EQ(rvevm_MainLoop(nullptr), 10);
    EXPECT_EQ(rvevm_Stop(nullptr), 10);
    EXPECT_EQ(rvevm_AddTimer(nullptr, &id, 1, callback, nullptr), 10);
    EXPECT_EQ(rvevm_AddIO(nullptr, &id, 0, RVEVM_READ, callback, nullptr), 10);
    EXPECT_EQ(rvevm_RemoveSignal(nullptr, id), 10);
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

TEST_F(EventManager, WaitsExactlyUntilTheNextExpiry) {
    const auto start = clock.now();
    addTimer(250, "a", [&] { EXPECT_EQ(clock.now() - start, 250); });
    addTimer(100'000, "b", [&] {
        EXPECT_EQ(clock.now() - start, 100'000);
        stop();
    });
    EXPECT_EQ(loop(), "ab");
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

TEST_F(EventManager, DestroyedByATimerCallsNothingMoreAndGoesWithTheLoop) {
    const SocketPair pair;
    addIo(pair.near.get(), RVEVM_WRITE, "w");
    rvevm_Manager dying = manager;
    addTimer(0, "a", [&, dying] {
        destroyInsideTheLoop();
        rvevm_Id id = nullptr;
        EXPECT_EQ(rvevm_AddTimer(dying, &id, 1, ignore, nullptr), 10);
    });
    addTimer(0, "b");
    EXPECT_EQ(loop(), "a");
}

TEST(ManagerHandle, OfADestroyedManagerNamesNothingForEver) {
    std::vector<rvevm_Manager> destroyed;
    rvevm_Manager manager = nullptr;
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(rvevm_Create(&manager), 0);
        ASSERT_EQ(rvevm_Destroy(manager), 0);
        destroyed.push_back(manager);
    }
    ASSERT_EQ(rvevm_Create(&manager), 0);
    for (rvevm_Manager handle : destroyed) EXPECT_EQ(rvevm_Destroy(handle), 10);
    EXPECT_EQ(rvevm_Stop(reinterpret_cast<rvevm_Manager>(&manager)), 10);
    EXPECT_EQ(rvevm_Destroy(manager), 0);
}

TEST_F(EventManagerInRealTime, StopFromAnotherThreadEndsASleepingLoop) {
    expectStopFromAnotherThreadToEndTheLoop();
}

TEST_F(EventManagerInRealTime, StopFromAnotherThreadEndsAWaitForSockets) {
    const SocketPair pair;
    addIo(pair.near.get(), RVEVM_READ, "r");
    addTimer(3'600'000, "late");
    expectStopFromAnotherThreadToEndTheLoop();
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
