#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "mom/mom.h"
#include "tools/bus/BusOptions.h"
#include "tools/bus/Program.h"

namespace kvx::bus {

/// A program's bus client: its main loop runs on the main thread and calls `whenRunning` once it
/// has started. Main thread only, unless stated otherwise.
///
/// Reports on standard error when the daemon is lost and restored, and how many messages the daemon
/// dropped because this program was too slow. Leaves with 1 when a daemon that was restarted
/// refuses it.
class Client : private RvDataCallback {
  public:
    /// `latencyMs` is the time-out of requests. On failure reports on standard error, and `isUp`
    /// returns false.
    explicit Client(const BusOptions& options, unsigned long latencyMs = 0);
    ~Client() override;

    bool isUp() const { return isUp_; }
    CVekRvNet& net() { return net_; }
    RvSession& session() { return *net_.m_session; }

    /// The daemon's address, from the configuration or the option.
    const std::string& daemon() const { return daemon_; }

    /// `subject` as typed, or qualified with the domain when one was given.
    std::string qualified(const std::string& subject);

    /// Sets the function that the loop calls when the daemon is lost (false) and restored (true).
    void onDaemonChange(std::function<void(bool isThere)> changed) {
        changed_ = std::move(changed);
    }

    /// Leaves with 1 when the daemon is lost. For programs that wait for one answer: reconnecting
    /// would block the loop, and the answer may be lost.
    void leaveWithoutDaemon();

    /// Ends with 1 after a loss of messages. For programs that promise a number of messages.
    void failOnLoss() { failsOnLoss_ = true; }

    /// Messages that the daemon dropped. Any thread.
    std::uint64_t lostMessages() const { return lostMessages_; }

    /// Runs the loop until `leave`, and returns the exit status given there.
    int run(std::function<void()> whenRunning);

    /// The same; SIGINT and SIGTERM also leave, with status 0, even while the loop is blocked.
    /// Reports the lost messages at the end.
    int runUntilSignal(std::function<void()> whenRunning);

    void leave(int exitStatus);

  private:
    std::string sessionText();
    bool watchSession();
    void changeDaemon(bool isThere);
    void onData(const char* subject, RvSender* replyTo, const RvDatum& data,
                RvListener* listener) override;
    void stopLoopFromOutside();
    int wrapUp();

    std::optional<SignalScope> signals_;  // outlives the session, which may close slowly

    const bool qualify_;
    std::atomic<int> exitStatus_ = 1;  // of a loop that ends without `leave`
    std::atomic<std::uint64_t> lostMessages_ = 0;
    std::atomic<bool> failsOnLoss_ = false;
    std::atomic<bool> hasWrappedUp_ = false;

    std::mutex loopLock_;
    rvevm_Manager loop_ = nullptr;  // guarded by loopLock_; null while the loop does not run

    // Used while the session closes, which may report a lost daemon.
    const unsigned daemonsBefore_ = rv_DaemonsStarted();
    std::string daemon_;
    std::function<void(bool)> changed_;
    CVekClient net_;
    bool isUp_ = false;
};

}  // namespace kvx::bus
