#pragma once

#include <cstdint>
#include <memory>

#include "mom/mom.h"

namespace modeld {

/// While one lives, the libraries' error reports are lines of the log. One a process.
class ReportsInLog {
  public:
    ReportsInLog();
    ~ReportsInLog();
    ReportsInLog(const ReportsInLog&) = delete;
    ReportsInLog& operator=(const ReportsInLog&) = delete;

  private:
    const VekErrorHandler before_;
};

/// Follows whether the daemon is there, and says in the log when it goes and when it is back.
///
/// While it is away every send fails, and each failure would be a line of `ReportsInLog`; they are
/// counted instead, and told in one line at the end. One object a process; built, started and
/// destroyed on the main thread of `engine`, which must outlive it.
class DaemonLink : public RvDataCallback, public RvTimerCallback {
  public:
    explicit DaemonLink(CVekEngine& engine) : engine_(engine) {}

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
    std::unique_ptr<RvListener> onGroupSession_;
};

}  // namespace modeld
