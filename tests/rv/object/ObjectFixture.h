#pragma once

#include "rv/message/RvDatum.h"
#include "rv/object/RvDatumFilter.h"
#include "rv/object/RvIO.h"
#include "rv/object/RvListener.h"
#include "rv/object/RvSender.h"
#include "rv/object/RvSession.h"
#include "rv/object/RvSignal.h"
#include "rv/object/RvTimer.h"
#include "rv/session/rvSessionEvents.h"
#include "tests/support/Callbacks.h"
#include "tests/support/Loop.h"

namespace kvx::test {

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

    void runUntil(const std::function<bool()>& done) {
        test::runUntil(rv_EventManager(runner->handle()), done);
    }

    /// Lets everything that is due now happen: a timer added after it all has fired.
    void settle() {
        OnTimer marker;
        const std::unique_ptr<RvTimer> timer(runner->newTimer(5, &marker, nullptr));
        runUntil([&] { return marker.calls > 0; });
    }

    std::unique_ptr<RvSession> runner = openSession("-");
    std::unique_ptr<RvSession> session = openSession("-");
};

inline std::string textOf(const RvDatum& data) {
    char text[64] = "";
    RvDatum copy(data);
    EXPECT_TRUE(copy.getString(text, sizeof text) == 0);
    return text;
}

}  // namespace kvx::test
