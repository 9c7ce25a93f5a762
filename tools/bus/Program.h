#pragma once

#include <functional>

/// The frame of every program of the tools. One program per process.
namespace kvx::bus {

/// Exit statuses.
inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kUsage = 2;

/// Runs `body` as the program and returns the exit status of the process: that of `body`, or 1 when
/// standard output could not be written. What the libraries tell on `std::cout` goes to standard
/// error: standard output is for what the program is asked for. Meanwhile writing to a closed pipe
/// is an error and no signal, and a dedicated thread handles SIGINT, SIGTERM and SIGHUP: they end
/// the process unless a `SignalScope` exists. Call it first in `main`, before any other thread
/// exists.
int runProgram(const std::function<int()>& body);

/// While it exists, SIGINT, SIGTERM and SIGHUP (unless ignored at the start) call `leave` instead.
/// Inside `runProgram`, main thread, one at a time.
class SignalScope {
  public:
    /// Both are called on the signals' thread, while the main thread runs. `leave` asks the main
    /// thread to end. A program that has not ended 300 ms later, because it waits for a daemon or
    /// for the reader of its output, is ended with the status that `wrapUp` returns, or by the
    /// signal itself when its output could not be written. A second signal ends it at once.
    SignalScope(std::function<void()> leave, std::function<int()> wrapUp);
    ~SignalScope();
    SignalScope(const SignalScope&) = delete;
    SignalScope& operator=(const SignalScope&) = delete;
};

}  // namespace kvx::bus
