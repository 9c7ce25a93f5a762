#pragma once

#include <array>
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
/// on the main thread of `engine`.
class DaemonLink : private RvTimerCallback {
  public:
    /// `engine` has its sessions.
    explicit DaemonLink(CVekEngine& engine);
    ~DaemonLink() override;
    DaemonLink(const DaemonLink&) = delete;
    DaemonLink& operator=(const DaemonLink&) = delete;

    /// False without memory.
    [[nodiscard]] bool start();

    /// Any thread.
    static bool isUp();

    /// The number of losses: while it is unchanged, items that have left the queue were sent. Any
    /// thread.
    static unsigned losses();

    /// Messages that could not be sent since the loss of the daemon. Any thread.
    static std::uint64_t unsent();

  private:
    static int onLoss(rv_Session session, const void* message, void* link);
    static int onReturn(rv_Session session, const void* message, void* link);
    void onTimer(RvTimer* timer) override;
    void back();

    CVekEngine& engine_;
    const std::array<rv_Session, 2> sessions_;  // the one that sends; the group's, or null

    // Main thread only.
    bool engineHasSeen_ = false;  // the present loss
    bool groupHasSeen_ = false;
    bool groupIsLate_ = false;        // its session has yet to find a loss that is over
    std::unique_ptr<RvTimer> timer_;  // runs once after the return of the group's session
};

}  // namespace modeld
