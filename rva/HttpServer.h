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
/// One thread serves all connections and waits for none: a request is answered when its head is
/// complete, within 16 KiB and five seconds, and a slow client delays no other. There are at most
/// 64 connections at a time; a further one closes the oldest.
class HttpServer {
  public:
    /// Gives the whole answer to the bytes of a request: a complete head, or all that came. Called
    /// on the server's thread; the other connections wait meanwhile.
    using Answer = std::function<std::string(std::string_view request)>;

    explicit HttpServer(Answer answer);
    /// Stops first.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Starts to serve on `port`, 0 for a free one. False when the port cannot be bound. Once.
    [[nodiscard]] bool start(std::uint16_t port);

    /// Stops listening, cuts what is under way short and waits for the thread.
    void stop();

    /// Whether it still serves. Any thread, between `start` and `stop`.
    [[nodiscard]] bool isServing() const { return !ended_; }

    /// Where it serves, once started.
    [[nodiscard]] std::uint16_t port() const { return port_; }

  private:
    // First the request is read, then the answer written, then what else comes is dropped until
    // the peer ends: closing over unread bytes would take the answer back.
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

    // The thread's, while it runs.
    platform::Socket socket_;
    platform::PollSet sockets_{&wakeUp_};
    std::map<platform::SocketHandle, Connection> connections_;
};

}  // namespace kvx::rva
