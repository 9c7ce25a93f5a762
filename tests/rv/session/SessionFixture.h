#pragma once

#include "rv/message/rvmsg.h"
#include "rv/session/rvSessionEvents.h"
#include "rv/session/rvSessionHooks.h"
#include "rv/session/rv_Session.h"
#include "tests/support/Loop.h"

namespace kvx::test {

using Texts = std::vector<std::string>;

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

    [[nodiscard]] Texts texts() const { return all(&Heard::text); }
    [[nodiscard]] Texts subjects() const { return all(&Heard::subject); }

  private:
    [[nodiscard]] Texts all(std::string Heard::*what) const {
        Texts found;
        for (const Heard& one : heard) found.push_back(one.*what);
        return found;
    }
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
        EXPECT_EQ(create(manager_, service, network, daemon), 0);
        return opened_.empty() ? nullptr : opened_.back();
    }
    rv_Session openSynchronous(const std::string& daemon) {
        EXPECT_EQ(create(nullptr, "", "", daemon), 0);
        return opened_.empty() ? nullptr : opened_.back();
    }
    int codeOfOpening(const std::string& daemon) { return create(manager_, "", "", daemon); }

    static void listen(rv_Session session, Listening& listening, const char* subject) {
        ASSERT_EQ(rv_Listen(session, &listening.id, subject, Listening::callback(), &listening), 0);
    }
    /// Gives the listening an inbox; its name.
    static std::string createInbox(rv_Session session, Listening& listening) {
        char name[100] = "";
        EXPECT_EQ(rv_CreateInbox(session, &listening.id, name, sizeof name, Listening::callback(),
                                 &listening),
                  0);
        return name;
    }
    static int send(rv_Session session, const char* subject, const std::string& text,
                    const char* reply = nullptr) {
        return rv_Send(session, subject, reply, RVMSG_STRING, 0, text.c_str());
    }
    static int deliver(rv_Session session, const char* subject, const std::string& text) {
        return rv_Deliver(session, subject, nullptr, RVMSG_STRING, 0, text.c_str());
    }

    void runUntil(const std::function<bool()>& done) { test::runUntil(manager_, done); }
    void runUntilHeard(const Listening& listening, std::size_t count) {
        runUntil([&listening, count] { return listening.heard.size() >= count; });
    }

    rvevm_Manager manager_ = nullptr;

  private:
    int create(rvevm_Manager manager, const char* service, const char* network,
               const std::string& daemon) {
        rv_Session session = nullptr;
        const int code = rv_CreateSession(&session, manager, service, network, daemon.c_str());
        EXPECT_EQ(session == nullptr, code != 0);
        if (session != nullptr) opened_.push_back(session);
        return code;
    }

    std::vector<rv_Session> opened_;
};

}  // namespace kvx::test
