#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "rv/message/rvmsg.h"
#include "rv/session/rvSessionEvents.h"
#include "rv/session/rvSessionHooks.h"
#include "rv/session/rv_Session.h"

namespace kvx::test {

/// What a listener heard.
struct Heard {
    std::string subject;
    std::string reply;
    std::string text;

    bool operator==(const Heard&) const = default;
};

inline void PrintTo(const Heard& heard, std::ostream* out) {
    *out << heard.subject << " '" << heard.text << "' reply '" << heard.reply << "'";
}

/// A listen with its callback; what it hears is kept, and `onHeard` is called for each.
class Listening {
  public:
    Listening() = default;
    Listening(const Listening&) = delete;
    Listening& operator=(const Listening&) = delete;

    [[nodiscard]] static rv_DataCallback callback() { return onData; }

    rv_Listener id = nullptr;
    std::vector<Heard> heard;
    std::function<void(const Heard&)> onHeard = [](const Heard&) {};

    [[nodiscard]] std::vector<std::string> texts() const {
        std::vector<std::string> all;
        for (const Heard& one : heard) all.push_back(one.text);
        return all;
    }
    [[nodiscard]] std::vector<std::string> subjects() const {
        std::vector<std::string> all;
        for (const Heard& one : heard) all.push_back(one.subject);
        return all;
    }

  private:
    static void onData(rv_Session, const char* subject, const char* reply, rvmsg_Type type,
                       rvmsg_Size size, rvmsg_Data data, void* closure) {
        Heard heard{subject, reply == nullptr ? "" : reply, ""};
        if (type == RVMSG_STRING && size > 0)
            heard.text.assign(static_cast<const char*>(data), size - 1);
        auto* self = static_cast<Listening*>(closure);
        self->heard.push_back(heard);
        const auto then = self->onHeard;  // the callback may destroy the listening
        then(heard);
    }
};

/// Sessions on one event manager of the test's own.
class SessionFixture : public testing::Test {
  protected:
    SessionFixture() { rvevm_Create(&manager_); }
    ~SessionFixture() override {
        closeAll();
        rvevm_Destroy(manager_);
    }

    void closeAll() {
        for (rv_Session session : std::exchange(opened_, {})) rv_Close(session);
    }

    rv_Session open(const std::string& daemon, const char* service = "7500",
                    const char* network = "") {
        rv_Session session = nullptr;
        const int code = rv_CreateSession(&session, manager_, service, network, daemon.c_str());
        EXPECT_EQ(code, 0);
        if (session != nullptr) opened_.push_back(session);
        return session;
    }
    int codeOfOpening(const std::string& daemon) {
        rv_Session session = nullptr;
        const int code = rv_CreateSession(&session, manager_, "", "", daemon.c_str());
        EXPECT_EQ(session == nullptr, code != 0);
        if (session != nullptr) opened_.push_back(session);
        return code;
    }
    rv_Session openSynchronous(const std::string& daemon) {
        rv_Session session = nullptr;
        EXPECT_EQ(rv_CreateSession(&session, nullptr, "7500", "", daemon.c_str()), 0);
        if (session != nullptr) opened_.push_back(session);
        return session;
    }

    static void listen(rv_Session session, Listening& listening, const char* subject) {
        ASSERT_EQ(rv_Listen(session, &listening.id, subject, Listening::callback(), &listening), 0);
    }
    static int send(rv_Session session, const char* subject, const std::string& text,
                    const char* reply = nullptr) {
        return rv_Send(session, subject, reply, RVMSG_STRING, 0, text.c_str());
    }
    static int deliver(rv_Session session, const char* subject, const std::string& text) {
        return rv_Deliver(session, subject, nullptr, RVMSG_STRING, 0, text.c_str());
    }

    /// Runs the loop until `done`; fails the test after `seconds`.
    void runUntil(std::function<bool()> done, int seconds = 20) {
        done_ = std::move(done);
        giveUpAt_ = platform::monotonicMs() + seconds * 1'000;
        rvevm_Id timer = nullptr;
        ASSERT_EQ(rvevm_AddRepeatTimer(manager_, &timer, 1, onCheck, this), 0);
        ASSERT_EQ(rvevm_MainLoop(manager_), 0);
        rvevm_RemoveTimer(manager_, timer);
    }
    void runUntilHeard(const Listening& listening, std::size_t count) {
        runUntil([&listening, count] { return listening.heard.size() >= count; });
    }

    rvevm_Manager manager_ = nullptr;

  private:
    static void onCheck(void*, void* closure, int, void*) {
        auto* self = static_cast<SessionFixture*>(closure);
        const bool late = platform::monotonicMs() > self->giveUpAt_;
        if (late) ADD_FAILURE() << "the condition did not come true";
        if (late || self->done_()) rvevm_Stop(self->manager_);
    }

    std::vector<rv_Session> opened_;
    std::function<bool()> done_;
    platform::Milliseconds giveUpAt_ = 0;
};

}  // namespace kvx::test
