#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

namespace modeld {

/// Makes a stop signal end the process whatever the main loop does: a loop that tries to reach its
/// daemon again handles no signal for seconds.
///
/// SIGINT, SIGTERM and SIGUSR1 are passed on to the port library's catcher, which has them handled
/// in the loop. When the loop has not been left 1.5 s later, or what follows it takes longer than
/// `leaving` allows, or a second signal comes, the process ends at once: with status 0 when the
/// daemon is away, since nothing is left that could be done without it, else with 1. Main thread.
class StopWatch {
  public:
    /// To be built after the catcher manages the signals.
    StopWatch();
    ~StopWatch();
    StopWatch(const StopWatch&) = delete;
    StopWatch& operator=(const StopWatch&) = delete;

    /// The loop has been left, and the catcher stopped. While the daemon is there what is left to
    /// do may take ten seconds.
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
