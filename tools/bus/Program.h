#pragma once

#include <functional>

/// What every program of the tools does first and last. One program a process.
namespace kvx::bus {

/// Exit statuses.
inline constexpr int kSuccess = 0;
inline constexpr int kFailure = 1;
inline constexpr int kUsage = 2;

/// Runs `body` as the program and returns the exit status of the process: that of `body`, or 1 when
/// standard output could not be written. Meanwhile a closed pipe is an error of the write, and
/// SIGINT, SIGTERM and SIGHUP are taken by a thread of their own: they end the process by
/// themselves except where a `SignalScope` says otherwise. Call it first in `main`, before there is
/// another thread.
int runProgram(const std::function<int()>& body);

/// While it lives, SIGINT, SIGTERM and SIGHUP ask the program to end in its own order, SIGHUP not
/// when the program was started with it ignored. Inside `runProgram`, main thread, one at a time.
class SignalScope {
  public:
    /// Both are called on the signals' thread, while the main thread runs. `leave` asks the main
    /// thread to come to its end. A program that has not ended 300 ms later, because it waits for a
    /// daemon or for the reader of its output, is ended in its place with the status that
    /// `wrapUp` returns, or by the signal itself when its output could not be brought out. A second
    /// signal ends it at once.
    SignalScope(std::function<void()> leave, std::function<int()> wrapUp);
    ~SignalScope();
    SignalScope(const SignalScope&) = delete;
    SignalScope& operator=(const SignalScope&) = delete;
};

}  // namespace kvx::bus
