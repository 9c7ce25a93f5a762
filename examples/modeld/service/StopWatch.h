#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace modeld {

/// Makes a stop signal end the process even while the main loop is blocked: a loop that reconnects
/// to its daemon handles no signal for seconds.
///
/// SIGINT, SIGTERM and SIGUSR1 are passed on to the port library's catcher, which handles them in
/// the loop. When the loop does not end within 1.5 s, or the shutdown after it takes longer than
/// `leaving` allows, or a second signal comes, the process ends at once: with status 0 when the
/// daemon is lost, since nothing can be done without it, else with 1. Main thread.
class StopWatch {
  public:
    /// Construct it after the catcher manages the signals.
    StopWatch();
    ~StopWatch();
    StopWatch(const StopWatch&) = delete;
    StopWatch& operator=(const StopWatch&) = delete;

    /// Call it when the loop has ended and the catcher is stopped. With a connected daemon the rest
    /// of the shutdown may take ten seconds.
    void leaving();

  private:
    using Clock = std::chrono::steady_clock;

    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Clock::time_point> deadline_;  // guarded by mutex_; set once a signal has come
    bool isOver_ = false;                        // guarded by mutex_
    std::thread thread_;                         // last: it uses the rest
};

}  // namespace modeld
