#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "platform/Clock.h"
#include "rv/message/RvDatum.h"
#include "rv/object/RvDataCallback.h"
#include "rv/object/RvDatumFilter.h"
#include "rv/object/RvIO.h"
#include "rv/object/RvIOCallback.h"
#include "rv/object/RvListener.h"
#include "rv/object/RvSender.h"
#include "rv/object/RvSession.h"
#include "rv/object/RvSignal.h"
#include "rv/object/RvSignalCallback.h"
#include "rv/object/RvTimer.h"
#include "rv/object/RvTimerCallback.h"
#include "rv/session/rvSessionEvents.h"

namespace kvx::test {

// Callbacks that do what a test says. The function is copied before it runs, since it may destroy
// the callback that holds it.

struct OnData : RvDataCallback {
    using Function = std::function<void(RvListener*, const RvDatum&, RvSender*)>;
    explicit OnData(Function function = {}) : call(std::move(function)) {}
    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override {
        ++messages;
        lastSubject = subject;
        const Function copy = call;
        if (copy) copy(listener, data, replyTo);
    }
    void onTimeout(RvListener* listener) override {
        ++timeouts;
        const auto copy = callOnTimeout;
        if (copy) copy(listener);
    }
    Function call;
    std::function<void(RvListener*)> callOnTimeout;
    int messages = 0;
    int timeouts = 0;
    std::string lastSubject;
};

template <class Base, class Event>
struct Counting : Base {
    using Function = std::function<void(Event*)>;
    explicit Counting(Function function = {}) : call(std::move(function)) {}
    void fire(Event* event) {
        ++calls;
        const Function copy = call;
        if (copy) copy(event);
    }
    Function call;
    int calls = 0;
};

struct OnTimer : Counting<RvTimerCallback, RvTimer> {
    using Counting::Counting;
    void onTimer(RvTimer* timer) override { fire(timer); }
};
struct OnIO : Counting<RvIOCallback, RvIO> {
    using Counting::Counting;
    void onIO(RvIO* io) override { fire(io); }
};
struct OnSignal : Counting<RvSignalCallback, RvSignal> {
    using Counting::Counting;
    void onSignal(RvSignal* signal) override { fire(signal); }
};

struct Filter : RvDatumFilter {
    using Function = std::function<RvDatum*(RvDatum*, void*)>;
    explicit Filter(Function function) : call(std::move(function)) {}
    RvDatum* filter(RvDatum* datum, void* object) override {
        const Function copy = call;
        return copy(datum, object);
    }
    Function call;
};

inline std::unique_ptr<RvSession> openSession(const std::string& daemon) {
    rv_Session handle = nullptr;
    EXPECT_EQ(0, rv_Open(&handle, "", "", daemon.c_str()));
    return std::make_unique<RvSession>(handle);
}

/// A session under test, and another one that runs the loop of the manager they share, so that the
/// first may be destroyed while the loop runs. Neither has a daemon unless `connect` is called.
class ObjectTest : public testing::Test {
  protected:
    static constexpr const char* kSubject = "_RV.LOCAL.TEST";  // heard without a daemon

    void connect(const std::string& daemon) { session = openSession(daemon); }

    /// Delivers a text to this session's listeners, without a daemon.
    void deliver(const char* text, const char* reply = nullptr) {
        EXPECT_EQ(0, rv_Deliver(session->handle(), kSubject, reply, RVMSG_STRING, 0, text));
    }

    RvListener* listen(OnData& callback) {
        return session->newListener(kSubject, &callback, nullptr);
    }

    /// Runs the loop until `condition` holds. False when it never did.
    bool runUntil(std::function<bool()> condition) {
        condition_ = std::move(condition);
        end_ = platform::monotonicMs() + 20'000;
        rvevm_Id watch = nullptr;
        EXPECT_EQ(0, rv_AddRepeatTimer(runner->handle(), &watch, 1, onWatch, this));
        EXPECT_EQ(0, rv_RunOnce(runner->handle()));
        rv_RemoveTimer(runner->handle(), watch);
        return condition_();
    }

    /// Lets everything that is due now happen: a timer added after it all has fired.
    void settle() {
        OnTimer marker;
        const std::unique_ptr<RvTimer> timer(runner->newTimer(5, &marker, nullptr));
        EXPECT_TRUE(runUntil([&] { return marker.calls > 0; }));
    }

    std::unique_ptr<RvSession> runner = openSession("-");
    std::unique_ptr<RvSession> session = openSession("-");

  private:
    static void onWatch(void* /*session*/, void* closure, int /*kind*/, void* /*id*/) {
        auto& self = *static_cast<ObjectTest*>(closure);
        if (self.condition_() || platform::monotonicMs() > self.end_) {
            rv_StopLoop(self.runner->handle());
        }
    }

    std::function<bool()> condition_;
    platform::Milliseconds end_ = 0;
};

inline std::string textOf(const RvDatum& data) {
    char text[64] = "";
    RvDatum copy(data);
    EXPECT_TRUE(copy.getString(text, sizeof text) == 0);
    return text;
}

}  // namespace kvx::test
