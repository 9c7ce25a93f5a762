#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "kvx/Client.h"
#include "mom/mom.h"

namespace kvx::detail {

/// The loop of a client: it does what other threads post, on a thread of its own or whenever a call
/// of the thread that made it waits.
///
/// Shared by the client, its subscriptions and streams, and its own thread. The thread that runs it
/// is the loop thread. `net` is the loop thread's alone.
class ClientLoop : public std::enable_shared_from_this<ClientLoop> {
  public:
    /// Something that waits for an event of the loop, and fails when that does not come any more.
    /// Loop thread only.
    class Waiting {
      public:
        virtual ~Waiting() = default;
        virtual void fail(Errc code) = 0;
    };

    /// Something that lives on while the connection comes and goes. Loop thread only.
    class Watcher {
      public:
        virtual ~Watcher() = default;
        virtual void onConnection(bool isThere) = 0;
        virtual void onLoopEnd() = 0;
    };

    explicit ClientLoop(Client::Options given) : options(std::move(given)) {}
    ~ClientLoop();
    ClientLoop(const ClientLoop&) = delete;
    ClientLoop& operator=(const ClientLoop&) = delete;

    /// Starts a thread, which connects.
    Result<> start();

    /// Makes the calling thread the loop's, and connects; on `given`, which must outlive the loop,
    /// unless it is null.
    Result<> startHere(CVekRvNet* given);

    /// Ends the loop and waits until it has ended, unless that is left to the thread that runs it.
    /// Any thread.
    void end();

    /// Runs the loop until `isDone`, or until it has ended. Loop thread, without a thread of its
    /// own; `isDone` is asked again after each `wakeCaller`.
    void runUntil(const std::function<bool()>& isDone);

    /// Runs the loop until it has ended; false where `runUntil` has no place.
    bool run();

    /// What the caller of `runUntil` waits for may be there. Loop thread.
    void wakeCaller() {
        if (isRunning_ && !std::exchange(isWoken_, true)) net->RRNStopLoop();
    }

    /// Waits until `isDone` with the loop's help where the calling thread has to run it, else with
    /// `block`.
    template <class Block>
    void wait(const std::function<bool()>& isDone, Block block) {
        isHere_&& isLoopThread() ? runUntil(isDone) : block();
    }

    /// How long it has run without a pause; for ever with a thread of its own. Loop thread.
    [[nodiscard]] std::chrono::milliseconds runsFor() const;

    /// Whether a call may wait: not inside a function that the loop calls.
    [[nodiscard]] bool mayWait() const { return !isLoopThread() || (isHere_ && !isRunning_); }

    /// Sends `message` on exactly `subject`, if it can be sent. Loop thread.
    void send(const std::string& subject, const RvMsg& message) const;

    /// Has `work` done on the loop thread, at once where that is the calling one and no thread of
    /// its own; false when the loop has ended, and then never.
    bool post(std::function<void()> work);

    /// Does `work` on the loop thread and waits for it; at once when called there.
    bool perform(const std::function<void()>& work);

    [[nodiscard]] bool isLoopThread() const { return std::this_thread::get_id() == loopThread_; }
    /// Returns when the loop thread touches neither the net nor the bus any more.
    void waitForEnd() const { gone_.wait(); }
    [[nodiscard]] bool isConnected() const { return isConnected_; }
    /// Whether it has lost the daemon and tries to reach it again, which blocks the loop. Where the
    /// calling thread has to run the loop, it tries for the time-out first. Any thread.
    [[nodiscard]] bool isLost();
    [[nodiscard]] Connection connection();
    [[nodiscard]] std::string inDomain(std::string_view subject) const;

    const Client::Options options;

    // Loop thread only.
    CVekRvNet* net = nullptr;  // null before the start and after the end
    std::set<Waiting*> waiting;
    /// Of the subscriptions: they end with the net, whatever thread the subscriptions die on.
    std::map<const void*, std::unique_ptr<RvListener>> listeners;
    std::map<Watcher*, std::shared_ptr<Watcher>> watchers;

  private:
    void runThread(std::promise<Result<>> started);
    [[nodiscard]] Result<> open(CVekRvNet* given);
    [[nodiscard]] Result<> connect();
    void close();
    void endNet();
    [[nodiscard]] bool isEnding();
    void flush() const;
    bool tryToReach();
    void changeConnection(bool isThere);

    void failAll(Errc code) const;
    /// Each of the watchers, also when it ends others.
    void tellWatchers(const std::function<void(Watcher&)>& tell) const;

    std::shared_ptr<const void> claim_;
    std::function<void(bool)> changed_;  // loop thread only
    std::thread thread_;
    bool isHere_ = false;              // constant after the start: without a thread of its own
    std::unique_ptr<CVekClient> own_;  // loop thread only; null when the net was given
    std::chrono::steady_clock::time_point begin_;  // of runUntil; loop thread only
    bool isWoken_ = false;                         // loop thread only: runUntil looks again
    std::atomic<bool> isRunning_{false};           // in runUntil; written by the loop thread
    std::atomic<std::thread::id> loopThread_{};
    std::latch gone_{1};
    std::atomic<bool> isConnected_{false};
    std::mutex mutex_;
    // Guarded by mutex_; null before the start and after the end.
    CVekRvNet* open_ = nullptr;
    rvevm_Manager manager_ = nullptr;
    bool isEnding_ = false;
    std::string address_;
};

}  // namespace kvx::detail
