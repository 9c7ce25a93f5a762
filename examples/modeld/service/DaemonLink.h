#pragma once

#include <cstdint>
#include <memory>

#include "mom/mom.h"

namespace modeld {

/// While one exists, the libraries' error reports are log lines. One per process.
class ReportsInLog {
  public:
    ReportsInLog();
    ~ReportsInLog();
    ReportsInLog(const ReportsInLog&) = delete;
    ReportsInLog& operator=(const ReportsInLog&) = delete;

  private:
    const VekErrorHandler before_;
};

/// Follows whether the daemon is connected, and logs its loss and return.
///
/// While it is lost every send fails, and each failure would be a line of `ReportsInLog`; they are
/// counted instead and logged in one line at the end. One per process; built, started and destroyed
/// on the main thread of `engine`, which must outlive it.
class DaemonLink : public RvDataCallback, public RvTimerCallback {
  public:
    explicit DaemonLink(CVekEngine& engine) : engine_(engine) {}

    /// False when the bus refuses.
    [[nodiscard]] bool start();

    /// Any thread.
    static bool isUp();

    /// The number of losses: while it is unchanged, items that have left the queue were sent. Any
    /// thread.
    static unsigned losses();

    /// Messages that could not be sent since the loss of the daemon. Any thread.
    static std::uint64_t unsent();

    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void onTimer(RvTimer* timer) override;

  private:
    CVekEngine& engine_;
    std::unique_ptr<RvListener> onGroupSession_;
};

}  // namespace modeld
