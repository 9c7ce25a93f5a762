#pragma once

#include "rv/event/rvevm.h"
#include "rv/link/ipq.h"
#include "rv/wire/Negotiation.h"
#include "tests/support/LinkEnd.h"
#include "tests/support/Loop.h"
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

    /// Another connection for the next queue.
    void reconnect() {
        closeQueue();
        peerGone_ = false;
        pair_ = SocketPair();
        peer_ = LinkEnd(std::move(pair_.far));
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

    void runUntil(const std::function<bool()>& done) { test::runUntil(manager_, done); }

    static wire::Built data(const std::string& text) {
        return wire::buildData(encodedSubject("TEST"), nullptr, 0, {RVMSG_STRING, 0, text.c_str()});
    }
    static std::string textIn(wire::Bytes message) {
        return textOf(ByteVector(message.begin(), message.end()), "data").value_or("?");
    }
    bool enqueue(const std::string& text) {
        return ipq_Enqueue(queue_, std::move(data(text).message), false);
    }

  public:
    SocketPair pair_;
    LinkEnd peer_;
    ipq_Properties properties_ = link::kDefaultProperties;
    rvevm_Manager manager_ = nullptr;
    ipq_Queue queue_ = nullptr;
    std::vector<std::string> heard_;
    bool peerGone_ = false;
    std::function<void()> onHeard_ = [] {};

  private:
    static void onMessage(ipq_Queue, const wire::Envelope& message, void* closure) {
        auto* self = static_cast<LinkFixture*>(closure);
        self->heard_.push_back(textIn(message.bytes));
        self->onHeard_();
    }
    static void onPeerGone(ipq_Queue queue, ipq_State, void* closure) {
        auto* self = static_cast<LinkFixture*>(closure);
        self->peerGone_ = true;
        self->queue_ = nullptr;
        ipq_Close(queue, false);
    }
};

}  // namespace kvx::test
