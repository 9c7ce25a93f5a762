#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "rvd/Connection.h"
#include "rvd/Counters.h"
#include "rvd/Log.h"
#include "rvd/Options.h"
#include "rvd/Outbox.h"
#include "rvd/Router.h"

namespace kvx::rvd {

/// The daemon: accepts, reads, routes and writes on one thread and one libuv loop. The only place,
/// with `Connection`, that does I/O.
class Server {
  public:
    /// Time that a stopping daemon, or one closing connection, spends on writing out what waits.
    static constexpr platform::Milliseconds kEndingMs = 5'000;

    Server(const Options& options, const Log& log);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Binds and listens. False, with a line in the log, when that fails.
    [[nodiscard]] bool start();
    /// "tcp:127.0.0.1:41233": where it listens, once started.
    [[nodiscard]] const std::string& address() const { return address_; }
    /// Serves until SIGTERM or SIGINT. Returns the exit status.
    int run();

    // For connections.
    [[nodiscard]] uv_loop_t* loop() { return &loop_; }
    [[nodiscard]] platform::Milliseconds now() const {
        return static_cast<platform::Milliseconds>(uv_now(&loop_));
    }
    [[nodiscard]] const Options& options() const { return options_; }
    [[nodiscard]] const Log& log() const { return log_; }
    [[nodiscard]] Counters& counters() { return counters_; }
    [[nodiscard]] OutboxPool& pool() { return pool_; }
    [[nodiscard]] Router& router() { return router_; }
    [[nodiscard]] std::uint32_t hostAddress() const { return hostAddress_; }
    /// Where the next read goes. One buffer serves all: what outlives the batch is copied.
    [[nodiscard]] uv_buf_t readBuffer();

    /// Queues `message` for every session that listens.
    void route(const Router::Session& from, SubjectView subject, const PayloadRef& message);
    /// `connection` has something to write, or has failed; it is dealt with in `endBatch`.
    void markDirty(Connection& connection);
    /// Writes out what one read has caused, then gives what still waits memory of its own.
    void endBatch();
    /// libuv has let go of the connection.
    void forget(Connection* connection);

  private:
    void onConnection(int status);
    void onTick();
    void stop();
    void closeHandles();
    void logCounters() const;

    // Constant after construction.
    const Options options_;
    const Log log_;
    const std::uint32_t hostAddress_;

    uv_loop_t loop_{};
    uv_tcp_t listener_{};
    uv_timer_t tick_{};
    uv_signal_t terminate_{};
    uv_signal_t interrupt_{};
    std::string address_;
    Counters counters_;
    OutboxPool pool_;
    Router router_;
    std::unordered_map<Connection*, std::unique_ptr<Connection>> connections_;
    std::vector<Connection*> dirty_;     // to flush when the batch ends
    std::vector<Connection*> flushing_;  // those of `dirty_` whose turn it is
    std::vector<PayloadRef> batch_;      // routed since the last endBatch
    std::unique_ptr<char[]> readBuffer_;
    bool stopping_ = false;
    platform::Milliseconds stopBy_ = 0;
};

}  // namespace kvx::rvd
