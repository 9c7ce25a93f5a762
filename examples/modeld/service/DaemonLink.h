#pragma once

#include <cstdint>
#include <memory>

#include "mom/mom.h"

namespace modeld {

/// Follows whether the daemon is there, and says in the log when it goes and when it is back.
///
/// While it is away every send fails, and each failure would be a report; they are counted instead,
/// and told in one line at the end. All other error reports of the libraries become lines of the
/// log. One object a process; built, started and destroyed on the main thread of `engine`, which
/// must outlive it.
class DaemonLink : public RvDataCallback, public RvTimerCallback {
  public:
    explicit DaemonLink(CVekEngine& engine);
    ~DaemonLink() override;
    DaemonLink(const DaemonLink&) = delete;
    DaemonLink& operator=(const DaemonLink&) = delete;

    /// False when the bus refuses.
    [[nodiscard]] bool start();

    /// Any thread.
    static bool isUp();

    /// How often the daemon has been lost: while this stays the same, what was queued and is no
    /// longer in the queue has been handed over. Any thread.
    static unsigned losses();

    /// Messages that could not be sent since the daemon was last there. Any thread.
    static std::uint64_t unsent();

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void onTimer(RvTimer* timer) override;

  private:
    CVekEngine& engine_;
    const VekErrorHandler before_;
    std::unique_ptr<RvListener> onGroupSession_;
};

}  // namespace modeld
