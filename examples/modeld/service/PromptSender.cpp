// A byte through a pair of sockets wakes the main loop, whatever the thread that queued something.
// One byte is enough for any number of items: it is taken before the queue is looked at.

#include "examples/modeld/service/PromptSender.h"

#include <array>
#include <cstddef>
#include <memory>

namespace modeld {

namespace {

constexpr std::chrono::milliseconds kWindow{100};  // the tick of the engine's queue
constexpr unsigned long kTicksPerSecond = 10;
// What the link may hold and still get more at once: its own limit, where it refuses, is 64 MiB.
constexpr unsigned long kMostOnLink = 16UL << 20U;

}  // namespace

PromptSender::~PromptSender() {
    if (near_) engine_.RRNRemoveIO(static_cast<unsigned int>(near_.get()));
}

bool PromptSender::start() {
    int error = 0;
    auto [near, far] = kvx::platform::createSocketPair(error);
    if (error != 0) return false;
    const auto handle = static_cast<unsigned int>(near.get());
    if (engine_.RRNAddIOHandle(handle, TRUE, FALSE, FALSE, this) != 1) return false;
    near_ = std::move(near);
    far_ = std::move(far);
    return true;
}

void PromptSender::wake() {
    if (!far_ || isAwake_.exchange(true)) return;
    constexpr std::array<std::byte, 1> kByte{};
    kvx::platform::sendSome(far_.get(), kByte);
}

void PromptSender::onIO(RvIO*) {
    std::array<std::byte, 8> taken{};
    kvx::platform::receiveSome(near_.get(), taken);
    isAwake_ = false;
    const auto now = Clock::now();
    if (now - windowBegin_ >= kWindow) {
        windowBegin_ = now;
        sentInWindow_ = 0;
    }
    unsigned long waitingBytes = 0;
    rv_Pending(engine_.m_session->handle(), nullptr, &waitingBytes);
    if (waitingBytes > kMostOnLink) return;
    const unsigned long share = engine_.REGetMaxSendRate() / kTicksPerSecond;
    for (; sentInWindow_ < share; ++sentInWindow_) {
        const std::unique_ptr<CVekSendQueueItem> item(engine_.RENextSendItem());
        if (!item) return;
        item->RSQIDeQueueIt();
    }
}

}  // namespace modeld
