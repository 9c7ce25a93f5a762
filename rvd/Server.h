#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "rvd/Batch.h"
#include "rvd/Connection.h"
#include "rvd/Counters.h"
#include "rvd/Log.h"
#include "rvd/Options.h"
#include "rvd/Outbox.h"
#include "rvd/Router.h"

namespace kvx::rvd {

/// The daemon: accepts, reads, routes and writes on one thread and one libuv loop. Only this class
/// and `Connection` do I/O.
class Server {
  public:
    Server(const Options& options, const Log& log);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Binds and listens. False, with a line in the log, when that fails.
    [[nodiscard]] bool start();
    /// The listening address, such as "tcp:127.0.0.1:41233", once started.
    [[nodiscard]] const std::string& address() const { return address_; }
    /// Serves until SIGTERM or SIGINT. Returns the exit status.
    int run();

  private:
    void onConnection(int status);
    void onTick();
    void stop();
    void forget(Connection& connection);
    void closeHandles();
    [[nodiscard]] platform::Milliseconds now() const {
        return static_cast<platform::Milliseconds>(uv_now(&loop_));
    }
    void logCounters() const;

    // Constant after construction.
    const Options options_;
    const Log log_;

    uv_loop_t loop_{};
    uv_tcp_t listener_{};
    uv_timer_t tick_{};
    uv_signal_t terminate_{};
    uv_signal_t interrupt_{};
    std::string address_;
    Counters counters_;
    OutboxPool pool_;
    Router router_;
    Batch batch_;
    const ConnectionContext context_;
    std::unordered_map<Connection*, std::unique_ptr<Connection>> connections_;
    bool stopping_ = false;
    platform::Milliseconds stopBy_ = 0;
};

}  // namespace kvx::rvd
