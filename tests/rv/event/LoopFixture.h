#pragma once

#include "platform/Clock.h"
#include "platform/Socket.h"
#include "rv/event/rvevm.h"

namespace kvx::test {

/// Callbacks that are closures of the test; each first notes its name in `log`.
class NotingTest : public testing::Test {
  protected:
    using Action = std::function<void()>;

    /// What callbacks are to be given as their owner.
    virtual void* owner() = 0;

    /// The closure of a callback that is `called` with this kind.
    void* plan(int kind, const std::string& name, Action action) {
        plans_.push_back(std::make_unique<Plan>(Plan{this, kind, name, std::move(action)}));
        return plans_.back().get();
    }
    static void called(void* owner, void* closure, int kind, void* entry) {
        auto* plan = static_cast<Plan*>(closure);
        EXPECT_EQ(owner, plan->test->owner());
        EXPECT_EQ(kind, plan->kind);
        EXPECT_NE(entry, nullptr);
        plan->test->log += plan->name;
        if (plan->action) plan->action();
    }
    static void ignore(void*, void*, int, void*) {}

    std::string log;

  private:
    struct Plan {
        NotingTest* test;
        int kind;
        std::string name;
        Action action;
    };
    std::vector<std::unique_ptr<Plan>> plans_;
};

/// An event manager with noting callbacks.
class LoopFixture : public NotingTest {
  protected:
    LoopFixture() { EXPECT_EQ(rvevm_Create(&manager), 0); }
    ~LoopFixture() override {
        if (manager != nullptr) rvevm_Destroy(manager);
    }
    void* owner() override { return manager; }

    rvevm_Id addTimer(unsigned long interval, const std::string& name, Action action = {}) {
        rvevm_Id id = nullptr;
        EXPECT_EQ(rvevm_AddTimer(manager, &id, interval, called, plan(2, name, std::move(action))),
                  0);
        return id;
    }
    rvevm_Id addIo(platform::SocketHandle socket, rvevm_IoEventType condition,
                   const std::string& name, Action action = {}) {
        rvevm_Id id = nullptr;
        EXPECT_EQ(rvevm_AddIO(manager, &id, static_cast<unsigned>(socket), condition, called,
                              plan(1, name, std::move(action))),
                  0);
        return id;
    }
    rvevm_Id addSignal(int signal, const std::string& name, Action action = {}) {
        rvevm_Id id = nullptr;
        EXPECT_EQ(rvevm_AddSignal(manager, &id, signal, called, plan(3, name, std::move(action))),
                  0);
        return id;
    }
    void stop() { EXPECT_EQ(rvevm_Stop(manager), 0); }
    /// For callbacks: the manager lives on, dying, until the loop returns.
    void destroyInsideTheLoop() {
        EXPECT_EQ(rvevm_Destroy(manager), 0);
        EXPECT_EQ(rvevm_Destroy(manager), 10);
        manager = nullptr;
    }
    /// Runs the loop until a callback stops it and returns the names of what was called.
    std::string loop() {
        log.clear();
        EXPECT_EQ(rvevm_MainLoop(manager), 0);
        return log;
    }
    /// Runs the loop for `duration` of the manual clock.
    std::string loopFor(unsigned long duration) {
        addTimer(duration, "", [this] { stop(); });
        return loop();
    }

    rvevm_Manager manager = nullptr;
};

}  // namespace kvx::test
