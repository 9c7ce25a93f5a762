#pragma once

#include <atomic>
#include <chrono>

#include "mom/mom.h"
#include "platform/Socket.h"

namespace modeld {

/// Sends what waits in the engine's queue at once, instead of at the queue's next tick, which is up
/// to 100 ms away: a querier waits for the answer, not for a tick.
///
/// In the time of a tick it sends no more than one tick's share of the send rate, and leaves the
/// rest to the tick. Built and destroyed on the engine's main thread, and destroyed before the
/// engine.
class PromptSender : public RvIOCallback {
  public:
    explicit PromptSender(CVekEngine& engine) : engine_(engine) {}
    ~PromptSender() override;
    PromptSender(const PromptSender&) = delete;
    PromptSender& operator=(const PromptSender&) = delete;

    /// False when the main loop cannot be woken; then the tick sends everything.
    [[nodiscard]] bool start();

    /// Something has been queued. Any thread.
    void wake();

    void onIO(RvIO* io) override;

  private:
    using Clock = std::chrono::steady_clock;

    CVekEngine& engine_;
    kvx::platform::Socket near_;  // what the main loop waits for
    kvx::platform::Socket far_;   // what other threads write to
    std::atomic<bool> isAwake_{false};

    // Main thread only.
    Clock::time_point windowBegin_;
    unsigned long sentInWindow_ = 0;  // items
};

}  // namespace modeld
