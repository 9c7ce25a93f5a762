#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>

#include "platform/Clock.h"
#include "platform/Poll.h"
#include "platform/Socket.h"

namespace kvx::rva {

/// Carries requests and answers over connections on the loopback, one request a connection.
///
/// One thread serves all connections without blocking: a request is answered when its head is
/// complete, within 16 KiB and five seconds, and a slow client delays no other. At most 64
/// connections are open; a further one closes the oldest.
class HttpServer {
  public:
    /// Returns the whole answer to a request: a complete head, or all that was received. Called on
    /// the server's thread; other connections wait.
    using Answer = std::function<std::string(std::string_view request)>;

    explicit HttpServer(Answer answer);
    /// Stops first.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Starts serving on `port`, 0 for a free one. False when the port cannot be bound. Call it
    /// once.
    [[nodiscard]] bool start(std::uint16_t port);

    /// Stops listening, aborts open connections and waits for the thread.
    void stop();

    /// Whether the thread still serves. Any thread, between `start` and `stop`.
    [[nodiscard]] bool isServing() const { return !ended_; }

    /// The port, once started.
    [[nodiscard]] std::uint16_t port() const { return port_; }

  private:
    struct Connection {
        enum class State { Reading, Writing, Ending };

        [[nodiscard]] unsigned interest() const {
            return state == State::Writing ? platform::kWritable : platform::kReadable;
        }

        platform::Socket socket;
        platform::Milliseconds deadline = 0;
        State state = State::Reading;
        std::string request;
        std::string answer;
        std::size_t sent = 0;
    };

    bool step();
    [[nodiscard]] platform::Milliseconds timeToFirstDeadline() const;
    [[nodiscard]] std::map<platform::SocketHandle, Connection>::const_iterator oldest() const;
    void accept();
    void close(platform::SocketHandle socket);
    void closeOverdue();
    bool proceed(Connection& connection);
    bool read(Connection& connection);
    void serve(Connection& connection);
    static bool write(Connection& connection);
    static bool drop(Connection& connection);

    const Answer answer_;
    std::uint16_t port_ = 0;  // constant once started
    platform::WakeUp wakeUp_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> ended_{false};
    std::thread thread_;

    // Used by the thread only, while it runs.
    platform::Socket socket_;
    platform::PollSet sockets_{&wakeUp_};
    std::map<platform::SocketHandle, Connection> connections_;
};

}  // namespace kvx::rva
