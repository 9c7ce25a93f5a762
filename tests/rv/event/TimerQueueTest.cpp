#include "rv/event/TimerQueue.h"

#include "tests/rv/event/LoopFixture.h"

using namespace kvx::event;
using kvx::platform::ManualClock;
using kvx::platform::Milliseconds;

namespace {

// A queue on a clock of its own, and timers that note their names when they fire.
class TimerQueueTest : public kvx::test::NotingTest {
  protected:
    void* owner() override { return this; }
    template <auto Add = &TimerQueue::add>
    rvevm_Id add(const std::string& name, unsigned long interval, Action action = {}) {
        rvevm_Id id = nullptr;
        EXPECT_EQ((*queue.*Add)(&id, interval, called, plan(2, name, std::move(action))), kTimerOk);
        return id;
    }
    rvevm_Id addRepeating(const std::string& name, unsigned long interval, Action action = {}) {
        return add<&TimerQueue::addRepeating>(name, interval, std::move(action));
    }
    // What fires when the clock is stepped and the queue run.
    std::string runAfter(Milliseconds step) {
        clock.advance(step);
        log.clear();
        lastResult = queue->runDueTimers();
        return log;
    }
    void mirrorNextExpiry() {
        queue->setNextExpiryHook(
            [](void* closure, std::optional<Milliseconds> wait) {
                static_cast<TimerQueueTest*>(closure)->told.push_back(wait.value_or(-1));
            },
            this);
    }
    // What the hook has been told since the last question; -1 for an empty queue.
    std::vector<Milliseconds> takeTold() { return std::exchange(told, {}); }

    ManualClock clock;
    std::vector<Milliseconds> told;
    int lastResult = kTimerOk;
    TimerQueue::Owner queue = TimerQueue::create(2, this);
};

}  // namespace

TEST_F(TimerQueueTest, FiresExactlyAtTheExpiryAndEqualExpiriesInTheOrderOfAdding) {
    std::mt19937 random(7);
    std::multimap<unsigned long, std::string> expected;  // keeps the order of equal keys
    for (int i = 0; i < 300; ++i) {
        const unsigned long interval = random() % 40;
        const std::string name = "<" + std::to_string(i) + ">";
        expected.emplace(interval, name);
        add(name, interval);
    }
    std::string inOrder;
    for (const auto& [interval, name] : expected) {
        if (interval == 20 && inOrder.find("20:") == std::string::npos) inOrder += "20:";
        inOrder += name;
    }
    const std::string first = runAfter(19);
    EXPECT_EQ(first + "20:" + runAfter(1) + runAfter(20), inOrder);
    EXPECT_EQ(lastResult, kQueueEmpty);
}

TEST_F(TimerQueueTest, CountsARepetitionFromTheStartOfTheRun) {
    addRepeating("r", 50, [&] { clock.advance(70); });
    EXPECT_EQ(runAfter(65), "r");  // 15 late; the callback takes longer than the interval
    Milliseconds wait = -1;
    EXPECT_EQ(queue->nextWait(wait), kTimerOk);
    EXPECT_EQ(wait, 0);
    EXPECT_EQ(runAfter(0), "r");
}

TEST_F(TimerQueueTest, RunsWhatACallbackAddsOnlyInTheNextRun) {
    rvevm_Id spent = nullptr;
    spent = add("a", 5, [&] {
        EXPECT_EQ(queue->remove(spent), kInvalidTimer);
        add("b", 0);
    });
    EXPECT_EQ(runAfter(5), "a");
    EXPECT_EQ(runAfter(0), "b");
}

TEST_F(TimerQueueTest, DoesNotCallWhatACallbackRemovesOrResetsInTheSameRun) {
    rvevm_Id removed = nullptr;
    rvevm_Id reset = nullptr;
    add("a", 5, [&] {
        EXPECT_EQ(queue->remove(removed), kTimerOk);
        EXPECT_EQ(queue->reset(reset, 20), kTimerOk);
    });
    removed = add("b", 5);
    reset = add("c", 5);
    add("d", 5);
    EXPECT_EQ(runAfter(5), "ad");
    EXPECT_EQ(runAfter(19), "");
    EXPECT_EQ(runAfter(1), "c");
}

TEST_F(TimerQueueTest, EndsWithTheRunWhenACallbackDestroysIt) {
    rvevm_Id unused = nullptr;
    rvevm_Id later = nullptr;
    add("a", 5, [&] {
        TimerQueue* dying = queue.get();
        queue.reset();
        EXPECT_EQ(dying->add(&unused, 1, ignore, nullptr), kInvalidQueue);
        EXPECT_EQ(dying->remove(later), kInvalidQueue);
    });
    add("b", 5);
    later = add("c", 50);
    mirrorNextExpiry();
    clock.advance(5);
    EXPECT_EQ(queue->runDueTimers(), kInvalidQueue);
    EXPECT_EQ(log, "a");
    EXPECT_TRUE(told.empty());
}

TEST_F(TimerQueueTest, ResettingMovesATimerAndARepeatingOneAdoptsTheInterval) {
    rvevm_Id repeating = addRepeating("r", 100);
    add("a", 30);
    EXPECT_EQ(queue->reset(repeating, 20), kTimerOk);
    EXPECT_EQ(runAfter(20), "r");
    EXPECT_EQ(runAfter(20), "ar");
}

TEST_F(TimerQueueTest, TellsTheHookWheneverTheFirstExpiryChanges) {
    mirrorNextExpiry();
    rvevm_Id first = add("a", 100);
    EXPECT_EQ(takeTold(), std::vector<Milliseconds>({100}));
    rvevm_Id second = add("b", 200);
    EXPECT_TRUE(takeTold().empty());
    EXPECT_EQ(queue->reset(first, 300), kTimerOk);
    EXPECT_EQ(takeTold(), std::vector<Milliseconds>({200}));
    EXPECT_EQ(queue->remove(second), kTimerOk);
    EXPECT_EQ(takeTold(), std::vector<Milliseconds>({300}));
    runAfter(400);
    EXPECT_EQ(takeTold(), std::vector<Milliseconds>({-1}));
    rvevm_Id last = add("c", 1);
    clock.advance(10);
    add("d", 60);
    EXPECT_EQ(queue->remove(last), kTimerOk);
    EXPECT_EQ(takeTold(), std::vector<Milliseconds>({1, 60}));
}

TEST_F(TimerQueueTest, RefusesDeadForeignAndMadeUpIds) {
    const TimerQueue::Owner other = TimerQueue::create(16, nullptr);
    rvevm_Id foreign = nullptr;
    ASSERT_EQ(other->add(&foreign, 5, ignore, nullptr), kTimerOk);
    rvevm_Id dead = add("a", 5);
    ASSERT_EQ(queue->remove(dead), kTimerOk);
    rvevm_Id tenant = add("b", 5);  // takes the place of the dead one
    int local = 0;
    for (rvevm_Id id : {dead, foreign, rvevm_Id{nullptr}, static_cast<rvevm_Id>(&local)}) {
        EXPECT_EQ(queue->remove(id), kInvalidTimer);
        EXPECT_EQ(queue->reset(id, 1), kInvalidTimer);
    }
    EXPECT_EQ(queue->remove(tenant), kTimerOk);
    EXPECT_EQ(queue->add(nullptr, 1, ignore, nullptr), kInvalidTimer);
    EXPECT_EQ(queue->add(&dead, 1, nullptr, nullptr), kNullCallback);
}

TEST_F(TimerQueueTest, HoldsIntervalsBeyondEveryClock) {
    add("never", std::numeric_limits<unsigned long>::max());
    add("a", 10);
    EXPECT_EQ(runAfter(1'000'000'000), "a");
    EXPECT_EQ(lastResult, kTimerOk);
}
