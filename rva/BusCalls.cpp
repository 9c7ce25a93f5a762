#include "rva/BusCalls.h"

#include <fmt/format.h>

#include <utility>

namespace kvx::rva {

namespace {

std::unique_ptr<RvSender> senderFor(CVekRvNet& net, const bus::Outgoing& message) {
    int status = kOk;
    return std::unique_ptr<RvSender>(net.RRNNewSender(
        &status, message.subject.c_str(), message.reply.empty() ? nullptr : message.reply.c_str()));
}

HttpReply refused(const RvStatus& status) {
    return errorReply(400, "InvalidArgument", status.text());
}

}  // namespace

// A request on the bus until its reply, its time-out, or the end of the client.
class BusCalls::Request : public RvDataCallback {
  public:
    Request(BusCalls& calls, HttpAnswerPtr answer, std::shared_ptr<const void> slot)
        : calls_(calls), answer_(std::move(answer)), slot_(std::move(slot)) {}

    void send(const bus::Outgoing& message, std::chrono::milliseconds timeout) {
        const auto ms = static_cast<unsigned long>(timeout.count());
        sender_ = senderFor(calls_.net_, message);
        if (sender_) inbox_.reset(sender_->sendRequest(*message.datum, ms, this, nullptr));
        if (!inbox_) finish(refused(calls_.net_.m_session->status()));
    }

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data, RvListener*) override {
        const char* const reply = replyTo != nullptr ? replyTo->subject() : nullptr;
        finish({200, kJsonType, bus::lineOf(bus::messageJson(subject, reply, data)) + "\n"});
    }

    void onTimeout(RvListener*) override {
        finish(errorReply(504, "TimedOut", "nobody has answered in time"));
    }

  private:
    void finish(HttpReply reply) {
        answer_->reply(std::move(reply));
        drop();
    }

  public:
    // Not within the call of the inbox that it destroys.
    void drop() {
        for (const auto& one : calls_.requests_) {
            if (one.get() != this) continue;
            calls_.net_.RRNPost([&calls = calls_, held = one] { calls.requests_.erase(held); });
            return;
        }
    }

  private:
    BusCalls& calls_;
    const HttpAnswerPtr answer_;
    const std::shared_ptr<const void> slot_;
    std::unique_ptr<RvSender> sender_;
    std::unique_ptr<RvListener> inbox_;
};

BusCalls::~BusCalls() = default;

bool BusCalls::post(const HttpAnswerPtr& answer, std::chrono::milliseconds within,
                    std::function<void()> work) {
    answer->expectWithin(within + kHandOver);
    if (net_.RRNPost(std::move(work)) == kOk) return true;
    answer->reply(errorReply(503, "Ended", "the agent ends"));
    return false;
}

void BusCalls::send(std::vector<bus::Outgoing> messages, const HttpAnswerPtr& answer) {
    auto slot = quota_.take();
    if (!slot) {
        answer->reply(errorReply(429, "TooMany", "64 requests are in progress on the bus"));
        return;
    }
    post(answer, {}, [this, slot, answer, messages = std::move(messages)] {
        if (!answer->isOpen()) return;
        for (const bus::Outgoing& message : messages) {
            const auto sender = senderFor(net_, message);
            const RvStatus status =
                sender ? sender->send(*message.datum) : net_.m_session->status();
            if (!(status == RvStatus(0))) {
                answer->reply(refused(status));
                return;
            }
        }
        answer->reply({200, kJsonType, fmt::format("{{\"sent\":{}}}\n", messages.size())});
    });
}

void BusCalls::request(bus::Outgoing message, std::chrono::milliseconds timeout,
                       const HttpAnswerPtr& answer) {
    auto slot = quota_.take();
    if (!slot) {
        answer->reply(errorReply(429, "TooMany", "64 requests are in progress on the bus"));
        return;
    }
    post(answer, timeout, [this, slot, answer, timeout, message = std::move(message)] {
        if (!answer->isOpen()) return;
        const auto request = std::make_shared<Request>(*this, answer, slot);
        requests_.insert(request);
        answer->onGone([this, weak = std::weak_ptr(request)] {
            net_.RRNPost([weak] {
                if (const auto gone = weak.lock()) gone->drop();
            });
        });
        request->send(message, timeout);
    });
}

}  // namespace kvx::rva
