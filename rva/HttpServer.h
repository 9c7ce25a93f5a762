#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "platform/Clock.h"
#include "platform/Poll.h"
#include "platform/Socket.h"
#include "rva/HttpAnswer.h"
#include "rva/HttpRequest.h"

namespace kvx::rva {

/// Who answers requests. Called on the server's thread; other connections wait meanwhile.
class HttpHandler {
  public:
    virtual ~HttpHandler() = default;
    /// Why a request is not answered, before its body is read; nothing when it is.
    virtual std::optional<HttpReply> refuse(const HttpRequest& head) = 0;
    /// Answers, at once or later.
    virtual void answer(HttpRequest request, HttpAnswerPtr answer) = 0;
};

/// Carries requests and answers over connections, one request a connection.
///
/// One thread serves all connections without blocking, so a slow client delays no other. A request
/// has 16 KiB of head, 1 MiB of body and ten seconds. At most 128 connections are open besides
/// those whose answer is still being made; a further one closes the oldest.
class HttpServer {
  public:
    /// For how long a client may take nothing of an answer before it is dropped.
    static constexpr platform::Milliseconds kStalledMs = 30'000;

    explicit HttpServer(HttpHandler& handler, platform::Milliseconds stalled = kStalledMs)
        : handler_(handler), stalled_(stalled) {}
    /// Stops first.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Has the thread call `call` as soon as it serves, and then at this interval. Before `start`.
    void callEvery(platform::Milliseconds interval, std::function<void()> call);

    /// Starts serving on `local`, port 0 for a free one. False when that cannot be bound. Call it
    /// once.
    [[nodiscard]] bool start(platform::Endpoint local);
    /// The same with a listening socket.
    [[nodiscard]] bool start(platform::Socket listening);

    /// Stops listening, waits for the thread, and ends open answers with what their clients take at
    /// once.
    void stop();

    /// Whether the thread still serves. Any thread, between `start` and `stop`.
    [[nodiscard]] bool isServing() const { return !ended_; }

    /// The port, once started.
    [[nodiscard]] std::uint16_t port() const { return port_; }

  private:
    static constexpr platform::Milliseconds kNever =
        std::numeric_limits<platform::Milliseconds>::max();

    struct Connection {
        enum class State { Head, Body, Answering, Ending };

        // Whether it may be closed for a new one: nobody makes an answer for it any more.
        [[nodiscard]] bool isSpare() const { return state != State::Answering || isLast; }
        [[nodiscard]] bool isSending() const { return sent < sending.size(); }

        platform::Socket socket;
        platform::Milliseconds since = 0;
        platform::Milliseconds deadline = 0;  // kNever without one
        unsigned interest = platform::kReadable;
        State state = State::Head;
        std::string received;
        std::size_t bodyLeft = 0;
        HttpRequest request;
        std::shared_ptr<HttpAnswer> answer;
        std::string sending;
        std::size_t sent = 0;
        bool isLast = false;     // `sending` is all that is left
        bool isBroken = false;   // the client shall see that it is not whole
        bool hasNoBody = false;  // the answer to HEAD
    };
    using Connections = std::map<platform::SocketHandle, Connection>;

    bool step();
    [[nodiscard]] platform::Milliseconds timeToFirstDeadline() const;
    void callWhenDue();
    bool acceptOne();
    void makeRoom();
    void close(platform::SocketHandle socket);
    void closeOverdue();
    bool overdue(Connection& connection);
    bool proceed(Connection& connection, unsigned ready);
    bool watch(Connection& connection);
    bool read(Connection& connection);
    bool takeReceived(Connection& connection);
    bool takeHead(Connection& connection, std::size_t size);
    bool answer(Connection& connection);
    bool send(Connection& connection);
    bool refill(Connection& connection) const;
    void replyAtOnce(Connection& connection, const HttpReply& reply) const;

    HttpHandler& handler_;
    const platform::Milliseconds stalled_;
    std::uint16_t port_ = 0;  // constant once started
    const std::shared_ptr<platform::WakeUp> wakeUp_ = std::make_shared<platform::WakeUp>();
    std::atomic<bool> stopping_{false};
    std::atomic<bool> ended_{false};
    std::thread thread_;

    // Used by the thread only, while it runs.
    platform::Socket socket_;
    platform::PollSet sockets_{wakeUp_.get()};
    Connections connections_;
    std::function<void()> call_;
    platform::Milliseconds callInterval_ = 0;
    platform::Milliseconds callAt_ = kNever;
};

}  // namespace kvx::rva
