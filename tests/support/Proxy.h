#pragma once

#include <poll.h>

#include <atomic>
#include <chrono>
#include <list>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <vector>

#include "platform/Socket.h"

namespace kvx::test {

/// Stands between a server of the loopback and its clients, one door (port) for each client, and
/// does to the connections of a door what it is told. It connects to the server as soon as that is
/// there, so a client waits for one that is being restarted. Any thread.
class Proxy {
  public:
    enum class Way : std::uint8_t { Up, Down };  ///< up: to the server
    enum class End : std::uint8_t { Fin, Reset, HalfUp, HalfDown };

    /// How bytes pass: at most so many at once, and so often.
    struct Limit {
        std::size_t piece = kAtOnce;  ///< a random number up to this one; 0: none pass
        std::chrono::milliseconds pause{0};
    };
    static constexpr std::size_t kAtOnce = 64 * 1024;

    Proxy(std::uint16_t server, int doors);
    ~Proxy();
    Proxy(const Proxy&) = delete;
    Proxy& operator=(const Proxy&) = delete;

    [[nodiscard]] std::uint16_t port(int door) const;

    void limit(int door, Way way, Limit limit);
    /// Ends the door's connections; what it holds of them is lost.
    void end(int door, End how);
    /// Ends the door's connections, and at once those that come.
    void cut(int door);
    /// Of that door, now.
    [[nodiscard]] std::size_t connections(int door);
    /// Ends the next connection after so many bytes from the server: 0 as soon as it comes.
    void endNext(int door, std::size_t bytes);
    /// From now on everything passes.
    void heal();

  private:
    using Clock = std::chrono::steady_clock;

    struct Flow {
        std::vector<std::byte> held;
        bool isEnded = false;  // by its source
        bool isShut = false;   // at its destination
        Clock::time_point next;
    };
    struct Pair {
        platform::Socket client;
        platform::Socket server;  // empty until it accepts
        Flow up;
        Flow down;
        std::optional<std::size_t> left;  // bytes from the server after which it ends
        bool isOver = false;
    };
    struct Door {
        platform::Socket listener;
        std::list<Pair> pairs;
        Limit up;
        Limit down;
        bool isCut = false;
        std::optional<std::size_t> endNext;
    };

    void run();
    void awaitWork();
    void serve(Door& door);
    void accept(Door& door);
    void connect(Pair& pair) const;
    std::size_t someOf(const Limit& limit);
    std::size_t move(Flow& flow, const platform::Socket& from, const platform::Socket& to,
                     const Limit& limit);
    static void end(Pair& pair, End how);

    const std::uint16_t server_;
    std::mutex mutex_;
    std::vector<Door> doors_;
    std::minstd_rand random_;
    std::atomic<bool> isEnding_{false};
    std::thread thread_;
};

}  // namespace kvx::test
