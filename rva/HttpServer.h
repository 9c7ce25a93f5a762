#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kvx::rva {

/// Plain HTTP on the loopback: a few paths, each answered by a function.
///
/// GET and HEAD only, one request a connection. One thread serves all connections and waits for
/// none: a request is answered when its head is complete, within 16 KiB and five seconds, and a
/// slow client delays no other. There are at most 64 connections at a time; a
/// further one closes the oldest.
class HttpServer {
  public:
    struct Answer {
        int status = 200;
        std::string type = "text/plain; charset=utf-8";
        std::string body;
    };
    /// Called on the server's thread; the others wait meanwhile.
    using Handler = std::function<Answer()>;

    HttpServer();
    /// Stops first.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Answers `path` with `handler`. Before `start`.
    void route(const std::string& path, Handler handler);

    /// Starts to serve on `port`, 0 for a free one. False when the port cannot be bound. Once.
    [[nodiscard]] bool start(std::uint16_t port);

    /// Stops listening, cuts what is under way short and waits for the thread.
    void stop();

    /// Whether it still serves. Any thread, between `start` and `stop`.
    [[nodiscard]] bool isServing() const;

    /// Where it serves, once started.
    [[nodiscard]] std::uint16_t port() const;

    /// Requests answered so far. Any thread.
    [[nodiscard]] std::uint64_t requests() const;

  private:
    class Listener;
    std::unique_ptr<Listener> listener_;
};

}  // namespace kvx::rva
