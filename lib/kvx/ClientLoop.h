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

#include "kvx/Client.h"
#include "mom/mom.h"

namespace kvx::detail {

/// The thread of a client: it makes the net, runs its loop and does what other threads post.
///
/// Shared by the client, its subscriptions and the thread itself. `net` is the loop thread's alone.
class ClientLoop : public std::enable_shared_from_this<ClientLoop> {
  public:
    /// Something that waits for an event of the loop, and fails when that does not come any more.
    /// Loop thread only.
    class Waiting {
      public:
        virtual ~Waiting() = default;
        virtual void fail(Errc code) = 0;
    };

    explicit ClientLoop(Client::Options given) : options(std::move(given)) {}
    ~ClientLoop();
    ClientLoop(const ClientLoop&) = delete;
    ClientLoop& operator=(const ClientLoop&) = delete;

    /// Starts the thread and connects.
    Result<> start();

    /// Ends the loop and waits until it has ended, unless called on its thread. Any thread.
    void end();

    /// Has `work` done on the loop thread; false when the loop has ended, and then never.
    bool post(std::function<void()> work);

    /// Does `work` on the loop thread and waits for it; at once when called there.
    bool perform(const std::function<void()>& work);

    [[nodiscard]] bool isLoopThread() const { return std::this_thread::get_id() == loopThread_; }
    /// Returns when the loop thread touches neither the net nor the bus any more.
    void waitForEnd() const { gone_.wait(); }
    [[nodiscard]] bool isConnected() const { return isConnected_; }
    /// Whether it has lost the daemon and tries to reach it again, which blocks the loop. Any
    /// thread.
    [[nodiscard]] bool isLost();
    [[nodiscard]] std::string inDomain(std::string_view subject) const;

    const Client::Options options;

    // Loop thread only.
    std::unique_ptr<CVekClient> net;
    std::set<Waiting*> waiting;
    /// Of the subscriptions: they end with the net, whatever thread the subscriptions die on.
    std::map<const void*, std::unique_ptr<RvListener>> listeners;

  private:
    void run(std::promise<Result<>> started);
    void runConnected(std::promise<Result<>> started);
    void endNet();
    [[nodiscard]] Result<> connect();
    void changeConnection(bool isThere);
    void failAll(Errc code) const;

    std::shared_ptr<const void> claim_;
    std::thread thread_;
    std::atomic<std::thread::id> loopThread_{};
    std::latch gone_{1};
    std::atomic<bool> isConnected_{false};
    std::mutex mutex_;
    // Guarded by mutex_; null before the start and after the end.
    CVekClient* open_ = nullptr;
    rvevm_Manager manager_ = nullptr;
};

}  // namespace kvx::detail
