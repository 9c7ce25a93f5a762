#pragma once

#include <functional>
#include <string>
#include <utility>

#include "rv/object/RvDataCallback.h"
#include "rv/object/RvIOCallback.h"
#include "rv/object/RvSignalCallback.h"
#include "rv/object/RvTimerCallback.h"

namespace kvx::test {

// Callbacks that count their calls and do what a test says. The function is copied before it runs,
// since it may destroy the callback that holds it.

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

struct OnData : RvDataCallback {
    using Function = std::function<void(const char*, RvSender*, const RvDatum&, RvListener*)>;
    explicit OnData(Function function = {}) : call(std::move(function)) {}
    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override {
        ++messages;
        lastSubject = subject;
        const Function copy = call;
        if (copy) copy(subject, replyTo, data, listener);
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

}  // namespace kvx::test
