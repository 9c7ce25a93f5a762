#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "rv/event/rvevm.h"
#include "rv/link/ipq.h"
#include "rv/wire/Negotiation.h"
#include "tests/support/ScriptedDaemon.h"
#include "tests/support/SocketPair.h"

namespace kvx::test {

/// A queue on one end of a connection, and the test on the other.
class LinkFixture : public testing::Test, public link::LinkHost {
  public:
    [[nodiscard]] rvevm_Manager linkManager() const override { return manager_; }
    [[nodiscard]] ipq_Properties linkProperties() const override { return properties_; }

  protected:
    LinkFixture() : peer_(std::move(pair_.far)) { rvevm_Create(&manager_); }
    ~LinkFixture() override {
        closeQueue();
        rvevm_Destroy(manager_);
    }

    void closeQueue() {
        if (queue_ != nullptr) ipq_Close(std::exchange(queue_, nullptr), false);
    }

    void open(const wire::QueueLimits& limits = {}) {
        wire::ParameterBlock block;
        block.head = wire::kQueueType;
        block.messageLimit = static_cast<std::int16_t>(limits.messages);
        block.firstLimit = limits.bytes;
        ASSERT_EQ(ipq_Create(&queue_, *this, block, std::move(pair_.near)), IPQ_OK);
        ipq_SetMessageCallback(queue_, onMessage, this);
        ipq_SetPeerGoneCallback(queue_, onPeerGone, this);
    }

    /// Runs the loop until `done`; fails the test after ten seconds.
    void runUntil(std::function<bool()> done) {
        done_ = std::move(done);
        giveUpAt_ = platform::monotonicMs() + 10'000;
        rvevm_Id timer = nullptr;
        ASSERT_EQ(rvevm_AddRepeatTimer(manager_, &timer, 1, onCheck, this), 0);
        ASSERT_EQ(rvevm_MainLoop(manager_), 0);
        rvevm_RemoveTimer(manager_, timer);
    }

    static wire::Built data(const std::string& text) {
        const auto subject = Subject::fromText("TEST");
        const SubjectView view = *subject;
        return wire::buildData({static_cast<const std::uint8_t*>(view.data()), view.length()},
                               nullptr, 0, {RVMSG_STRING, 0, text.c_str()});
    }
    static std::string textIn(wire::Bytes message) {
        return textOf(ByteVector(message.begin(), message.end()), "data").value_or("?");
    }
    bool enqueue(const std::string& text) {
        return ipq_Enqueue(queue_, std::move(data(text).message), false);
    }

  public:
    SocketPair pair_;
    PeerLink peer_;
    ipq_Properties properties_ = link::kDefaultProperties;
    rvevm_Manager manager_ = nullptr;
    ipq_Queue queue_ = nullptr;
    std::vector<std::string> heard_;
    bool peerGone_ = false;
    std::function<void()> onHeard_ = [] {};

  private:
    static void onMessage(ipq_Queue, wire::Bytes message, void* closure) {
        auto* self = static_cast<LinkFixture*>(closure);
        self->heard_.push_back(textIn(message));
        self->onHeard_();
    }
    static void onPeerGone(ipq_Queue queue, ipq_State, void* closure) {
        auto* self = static_cast<LinkFixture*>(closure);
        self->peerGone_ = true;
        self->queue_ = nullptr;
        ipq_Close(queue, false);
    }
    static void onCheck(void*, void* closure, int, void*) {
        auto* self = static_cast<LinkFixture*>(closure);
        const bool late = platform::monotonicMs() > self->giveUpAt_;
        if (late) ADD_FAILURE() << "the condition did not come true";
        if (late || self->done_()) rvevm_Stop(self->manager_);
    }

    std::function<bool()> done_;
    platform::Milliseconds giveUpAt_ = 0;
};

}  // namespace kvx::test
