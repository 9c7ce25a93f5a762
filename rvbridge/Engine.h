#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/Socket.h"
#include "rv/event/rvevm.h"
#include "rv/wire/Limits.h"
#include "rvbridge/Frame.h"

namespace kvx::bridge {

/// How to reach the engine that joins the hosts.
struct EngineSettings {
    std::vector<std::string> urls;  ///< "nats://host:port", tried in this order
    std::string name;               ///< of this client, shown by the engine
    std::string credentials;        ///< the file of the engine's own kind; empty: none
    std::string ca;                 ///< file with the certificates to trust; empty: the system's
    std::string certificate;        ///< file of our own certificate; empty: none
    std::string key;                ///< file of its key; empty as `certificate` is
};

/// Returns an empty text, or what is wrong with the files of certificates and key.
[[nodiscard]] std::string wrongIn(const EngineSettings& settings);

/// What the engine has to say.
class EngineOwner {
  public:
    virtual ~EngineOwner() = default;
    virtual void onEngineUp() = 0;
    /// The connection is lost, or cannot be made: `why` in one line, without secrets.
    virtual void onEngineDown(const std::string& why) = 0;
    /// The engine is there, but does not let us publish or subscribe to something.
    virtual void onEngineForbids(const std::string& what) = 0;
    /// Valid during the call. Nothing of a subscription that has ended, even if the same was made
    /// again.
    virtual void onEngineMessage(std::string_view subject, wire::Bytes bytes) = 0;
    /// Messages for us were dropped because we were too slow: `QueueFull` by us, or `EngineSlow`.
    virtual void onEngineLoss(LossCause cause) = 0;
};

/// One connection to the engine, made again whenever it is lost.
///
/// A thread of its own sends, subscribes and connects, in the order of the calls; what the engine
/// delivers arrives in the engine's order on the loop of `manager`. Neither side waits for the
/// other: both queues are bounded. Loop thread only, but for what is marked.
class Engine {
  public:
    Engine(rvevm_Manager manager, EngineSettings settings, EngineOwner& owner);
    ~Engine();  ///< Not after `stop` has returned false.
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Begins to connect. Returns an empty text, or why the system does not allow it.
    [[nodiscard]] std::string start();

    /// Returns false, and sends nothing, while `kMostWaiting` bytes wait. All that waits counts,
    /// with its subject and `kOverhead`.
    [[nodiscard]] bool publish(const std::string& subject, std::vector<std::uint8_t> bytes);
    /// False while little more can be published.
    [[nodiscard]] bool hasRoom();
    /// Wildcards as the engine has them. Once for each subject.
    void subscribe(const std::string& subject);
    void unsubscribe(const std::string& subject);

    [[nodiscard]] bool isUp() const { return isUp_; }
    /// The most bytes of one message, as the engine said last.
    [[nodiscard]] std::size_t mostBytes() const { return mostBytes_; }

    /// Waits until what was published is on its way, at most `timeout` milliseconds, and ends the
    /// connection, which takes another few seconds at most. Nothing works afterwards. Returns false
    /// when the library does not come back: the process must end without destroying this object.
    [[nodiscard]] bool stop(platform::Milliseconds timeout);

    static constexpr std::size_t kMostWaiting = 64 * 1024 * 1024;  // bytes, in each direction
    static constexpr std::size_t kOverhead = 512;      // bytes of memory for anything that waits
    static constexpr std::size_t kLeastBytes = 4'096;  // of one message; else it is not used
    static constexpr platform::Milliseconds kPause = 1'000;  // between attempts to connect

  private:
    struct Connection;
    struct Arrived;
    enum class Action { Publish, Subscribe, Unsubscribe };
    struct Order {
        Action action;
        std::string subject;
        std::vector<std::uint8_t> bytes;
        std::uint64_t subscription = 0;  // its number

        [[nodiscard]] std::size_t cost() const { return subject.size() + bytes.size() + kOverhead; }
    };

    void give(Order order);
    void send();
    [[nodiscard]] std::string connect(std::size_t& mostBytes);
    void execute(Order& order);
    void serveConnection();
    void arrive(Arrived arrived);
    void takeArrived();
    [[nodiscard]] bool stops();
    [[nodiscard]] bool hasEnded();

    const rvevm_Manager manager_;
    const EngineSettings settings_;
    EngineOwner& owner_;
    bool isUp_ = false;
    std::size_t mostBytes_ = 1024 * 1024;
    platform::Socket wakeNear_;
    platform::Socket wakeFar_;
    rvevm_Id wakeEvent_ = nullptr;
    std::unordered_set<std::uint64_t> living_;  // numbers of subscriptions
    std::uint64_t lastSubscription_ = 0;

    // Of the sending thread.
    std::unique_ptr<Connection> connection_;

    std::mutex mutex_;  // of all that follows
    std::condition_variable changed_;
    std::unordered_map<std::string, std::uint64_t> wanted_;  // numbers as in `living_`, by subject
    bool takesSubscriptions_ = false;  // as orders; else the next connection begins with `wanted_`
    std::deque<Order> orders_;
    std::size_t orderedBytes_ = 0;
    std::vector<Arrived> arrived_;
    std::size_t arrivedBytes_ = 0;
    bool hasOverflown_ = false;  // `arrived_`
    bool wasSlow_ = false;       // the library has dropped messages
    bool isWoken_ = false;
    bool mayBeLost_ = false;  // the connection
    bool stops_ = false;
    bool isIdle_ = false;  // nothing left to send
    bool isDone_ = false;  // the sending thread

    std::thread sender_;  // last: it uses all of the above
};

}  // namespace kvx::bridge
