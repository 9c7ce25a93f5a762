// Every kind of event, and everything that may die inside its callback. The sanitizers say whether
// anything freed was read; the tests say who is still called.

#include <sys/socket.h>
#include <unistd.h>

#include "tests/rv/object/ObjectFixture.h"

namespace kvx::test {
namespace {

enum class Kind : std::uint8_t { Message, Timeout, OneShot, Repeating, Io };

class EventLifetime : public ObjectTest, public testing::WithParamInterface<Kind> {
  protected:
    EventLifetime() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sockets_)); }
    ~EventLifetime() override {
        for (auto& event : events_) event.reset();
        for (const int socket : sockets_) ::close(socket);
    }

    void create(int index) {
        const auto i = static_cast<std::size_t>(index);
        const auto call = [this, index](auto*... /*event*/) {
            ++calls[index];
            if (const auto action = inCallback) action(index);
        };
        if (GetParam() == Kind::OneShot || GetParam() == Kind::Repeating) {
            auto timer = std::make_unique<OnTimer>(call);
            const auto repeat = GetParam() == Kind::Repeating ? rv_TRUE : rv_FALSE;
            events_[i].reset(session->newTimer(2, repeat, timer.get(), nullptr));
            callbacks_[i] = std::move(timer);
        } else if (GetParam() == Kind::Io) {
            auto io = std::make_unique<OnIO>(call);
            const auto socket = static_cast<unsigned>(sockets_[index]);
            events_[i].reset(session->newIO(socket, RVEVM_WRITE, io.get(), nullptr));
            callbacks_[i] = std::move(io);
        } else {
            auto data = std::make_unique<OnData>([call](auto&&...) { call(); });
            data->callOnTimeout = call;
            const unsigned long timeout = GetParam() == Kind::Timeout ? 2 : 0;
            events_[i].reset(session->newListener(kSubject, timeout, data.get(), nullptr));
            callbacks_[i] = std::move(data);
        }
        ASSERT_NE(events_[i], nullptr);
    }

    void comeDue() {
        if (GetParam() == Kind::Message && session) deliver("x", "reply.to");
        settle();
    }

    std::function<void(int)> inCallback;
    int calls[2] = {};
    std::unique_ptr<RvEvent> events_[2];
    std::unique_ptr<RvCallback> callbacks_[2];

  private:
    int sockets_[2] = {};
};

std::string nameOf(const testing::TestParamInfo<Kind>& info) {
    static const char* const names[] = {"Message", "Timeout", "OneShot", "Repeating", "Io"};
    return names[static_cast<int>(info.param)];
}

TEST_P(EventLifetime, IsCalledOnceWhenItsCallbackDestroysWhateverIsNeeded) {
    const std::function<void(int)> deaths[] = {
        [this](int) { events_[0].reset(); },
        [this](int) { callbacks_[0].reset(); },
        [this](int) {
            events_[0].reset();
            session.reset();
            callbacks_[0].reset();
        },
    };
    for (const auto& death : deaths) {
        calls[0] = 0;
        create(0);
        inCallback = death;
        comeDue();
        comeDue();
        EXPECT_EQ(calls[0], 1);
        if (events_[0]) {
            EXPECT_EQ(events_[0]->callback() == nullptr, callbacks_[0] == nullptr);
        }
        events_[0].reset();
    }
}

TEST_P(EventLifetime, DestroysAnotherOneThatIsDue) {
    create(0);
    create(1);
    inCallback = [this](int index) {
        events_[1 - index].reset();
        inCallback = nullptr;
    };
    comeDue();
    comeDue();
    EXPECT_EQ(std::min(calls[0], calls[1]), 0);
    EXPECT_GE(calls[0] + calls[1], 1);
}

TEST_P(EventLifetime, DestroysItsSession) {
    create(0);
    create(1);
    inCallback = [this](int) { session.reset(); };
    comeDue();
    comeDue();
    EXPECT_EQ(calls[0] + calls[1], 1);
    EXPECT_EQ(events_[0]->session(), nullptr);
}

TEST_P(EventLifetime, CallsNobodyWhenItsCallbackDiedFirst) {
    create(0);
    create(1);
    callbacks_[0].reset();
    EXPECT_EQ(events_[0]->callback(), nullptr);
    comeDue();
    comeDue();
    EXPECT_EQ(calls[0], 0);
    EXPECT_GE(calls[1], 1);
    session.reset();
    callbacks_[1].reset();
    comeDue();
}

INSTANTIATE_TEST_SUITE_P(Kinds, EventLifetime,
                         testing::Values(Kind::Message, Kind::Timeout, Kind::OneShot,
                                         Kind::Repeating, Kind::Io),
                         nameOf);

}  // namespace
}  // namespace kvx::test
