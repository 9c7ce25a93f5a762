#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "mom/mom.h"
#include "tools/bus/Connection.h"
#include "tools/bus/Program.h"

namespace kvx::bus {

/// The bus as a program uses it: a client whose main loop runs on this thread, and whose
/// `whenRunning` is called once the loop has started. Main thread only, where nothing else is said.
///
/// It tells on standard error when the daemon is lost and when it is back, and how many messages
/// the daemon dropped because this program did not keep up.
class Client : private RvDataCallback {
  public:
    /// `latencyMs` is the time-out of requests. Problems are told on standard error; `isUp` then
    /// returns false.
    explicit Client(const Connection& connection, unsigned long latencyMs = 0);
    ~Client() override;

    bool isUp() const { return isUp_; }
    CVekRvNet& net() { return net_; }
    RvSession& session() { return *net_.m_session; }

    /// The daemon's address, as the configuration or the option has it.
    const std::string& daemon() const { return daemon_; }

    /// `subject` as typed, or qualified with the domain when one was given.
    std::string qualified(const std::string& subject);

    /// Calls `changed` when the daemon is lost (false) and when it is back (true), from the loop.
    void onDaemonChange(std::function<void(bool isThere)> changed) {
        changed_ = std::move(changed);
    }

    /// For programs that wait for one thing: they leave with 1 when the daemon is lost, since
    /// reconnecting would block the loop and what was on its way may never come.
    void leaveWithoutDaemon();

    /// For programs that promise a number of messages: with losses they end with 1.
    void failOnLoss() { failsOnLoss_ = true; }

    /// Messages that the daemon dropped. Any thread.
    std::uint64_t lostMessages() const { return lostMessages_; }

    /// Runs the loop until `leave`, then returns the exit status that was asked for.
    int run(std::function<void()> whenRunning);

    /// The same, and SIGINT and SIGTERM leave with status 0 too, at once even when the loop is
    /// stuck. Tells at the end what was lost.
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

    std::optional<SignalScope> signals_;  // outlives the session, whose closing may be slow

    const bool qualify_;
    std::atomic<int> exitStatus_ = 1;  // of a loop that nobody has asked to leave
    std::atomic<std::uint64_t> lostMessages_ = 0;
    std::atomic<bool> failsOnLoss_ = false;
    std::atomic<bool> hasWrappedUp_ = false;

    std::mutex loopLock_;
    rvevm_Manager loop_ = nullptr;  // guarded by loopLock_; null while the loop does not run

    // Closing the session may still tell of the daemon's loss.
    std::string daemon_;
    std::function<void(bool)> changed_;
    CVekClient net_;
    bool isUp_ = false;
};

}  // namespace kvx::bus
