// The daemon's side of one connection, fed with arbitrary bytes in arbitrary chunks and time steps:
// protocol, router and queues together, as in the server, without sockets. A second, well-behaved
// session listens to everything and reads slowly.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "rv/message/SubjectView.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/Negotiation.h"
#include "rvd/Outbox.h"
#include "rvd/Peer.h"
#include "rvd/Router.h"

namespace {

using namespace kvx;
using namespace kvx::rvd;

constexpr std::size_t kQueueLimit = 600;  // bytes: small enough for losses
constexpr std::uint64_t kMemoryLimit = 2'000;

void require(bool condition) {
    if (!condition) std::abort();
}

// A queue for the messages of its session.
struct Box final : MemoryHolder, Receiver, Outbox {
    Box(MemoryAccount& account, Counters& counters)
        : MemoryHolder(account), Outbox(kQueueLimit, *this, counters) {}
    bool giveUp() override { return dropOldest(LossCause::Memory); }
    void deliver(const PayloadRef& message) override { pushMessage(message); }
};

// The server without its sockets: one noisy peer, one quiet listener.
class House : public PeerActions {
  public:
    House() : peer_({1, 2}, *this, counters_) {
        quiet_ = &router_.join("", "", quietBox_);
        require(router_.listen(*quiet_, *Subject::fromText(">")));
        require(router_.listen(*quiet_, *Subject::fromText("_INBOX.>")));
        peer_.start(now_);
    }
    ~House() override {
        if (noisy_ != nullptr) router_.leave(*noisy_);
        router_.leave(*quiet_);
        require(counters_[Counter::ListensOpen] == 0 && counters_[Counter::SessionsOpen] == 0);
    }

    void receive(wire::Bytes bytes) {
        const std::vector<std::uint8_t> chunk(bytes.begin(), bytes.end());
        std::size_t left = chunk.size();
        while (left > 0) left = peer_.receive(wire::Bytes(chunk).last(left), now_);
        write(noisyBox_, 100);
        write(quietBox_, 50);
        for (const auto& payload : batch_) {
            if (payload->shared()) payload->keep();
        }
        batch_.clear();
        account_.relieve();
        check(noisyBox_);
        check(quietBox_);
    }
    void pass(platform::Milliseconds time) {
        now_ += time;
        peer_.tick(now_);
    }
    void shutDown() { peer_.shutDown(); }
    [[nodiscard]] bool closed() const { return peer_.state() == PeerState::Closed; }

    void send(wire::Bytes bytes) override {
        require(!closed_);
        (void)noisyBox_.pushControl(bytes);
    }
    void join(std::string_view service, std::string_view network) override {
        require(noisy_ == nullptr && !closed_);
        noisy_ = &router_.join(service, network, noisyBox_);
    }
    bool isIn(std::string_view service, std::string_view network) override {
        return noisy_ != nullptr && noisy_->isIn(service, network);
    }
    bool listen(SubjectView subject) override { return router_.listen(session(), subject); }
    void cancel(SubjectView subject) override { router_.cancel(session(), subject); }
    void publish(SubjectView subject, const PayloadRef& message) override {
        batch_.push_back(message);
        Router::Match match(router_, session(), subject);
        while (!match.isDone()) {
            for (Receiver* found : match.advance(subject, 1 + ++turns_ % 4))
                found->deliver(message);
        }
    }
    bool mayGoOn() override { return ++turns_ % 4 != 0; }
    void close(CloseReason) override {
        require(!closed_);
        closed_ = true;
    }

  private:
    unsigned turns_ = 0;

    Router::Session& session() {
        require(noisy_ != nullptr && !closed_);
        return *noisy_;
    }
    static void write(Outbox& box, std::size_t room) {
        std::array<wire::Bytes, 3> slices;
        const std::size_t count = box.gather(slices);
        std::size_t offered = 0;
        unsigned sum = 0;
        for (std::size_t i = 0; i < count; ++i) {
            offered += slices[i].size();
            for (const auto byte : slices[i]) sum += byte;  // every byte must be readable
        }
        box.written(std::min(offered, room + sum % 2));
    }
    static void check(const Outbox& box) {
        const auto& totals = box.totals();
        require(totals.matched == totals.delivered + totals.dropped + box.waitingMessages());
        require(box.waitingBytes() <= kQueueLimit);
    }

    Counters counters_;
    MemoryAccount account_{kMemoryLimit};
    Router router_{counters_};
    Box noisyBox_{account_, counters_};
    Box quietBox_{account_, counters_};
    Peer peer_;
    Router::Session* noisy_ = nullptr;
    Router::Session* quiet_ = nullptr;
    std::vector<PayloadRef> batch_;
    platform::Milliseconds now_ = 0;
    bool closed_ = false;
};

// A valid handshake, so that most inputs get past it.
void shakeHands(House& house) {
    const std::array<std::uint8_t, 12> answer = {0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 1};
    house.receive(answer);
    house.receive(wire::encode(wire::clientStep(wire::daemonProposal()).block));
    house.receive(wire::buildInit({"f", "F.1", "", "", nullptr, {}}).message.view());
}

}  // namespace

// Input: one byte of options, then pieces, each after one byte: its length, or above 0xF0 a step of
// time.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    House house;
    if ((data[0] & 1U) != 0) shakeHands(house);
    wire::Bytes input(data + 1, size - 1);
    while (!input.empty()) {
        const std::uint8_t step = input[0];
        input = input.subspan(1);
        if (step > 0xF0) {
            house.pass(platform::Milliseconds{1} << (step - 0xF0U) << 6U);
            continue;
        }
        const std::size_t length = std::min<std::size_t>(step, input.size());
        house.receive(input.first(length));
        input = input.subspan(length);
    }
    if ((data[0] & 2U) != 0) house.shutDown();
    return 0;
}
