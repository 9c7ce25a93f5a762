// One loop, one thread. Every callback that can cause output ends the batch last. A connection is
// deleted only after libuv has closed its handle.

#include "rvd/Server.h"

#include <algorithm>
#include <array>
#include <string>

#include "platform/Process.h"
#include "platform/Signals.h"
#include "platform/Socket.h"

namespace kvx::rvd {
namespace {

constexpr int kBacklog = 511;  // pending connections
constexpr std::uint64_t kTickMs = 1'000;
constexpr std::uint64_t kStoppingTickMs = 50;

// All queues together may hold half of the machine's memory, 1 GiB if that is unknown.
constexpr std::uint64_t kPoolShare = 2;
constexpr std::uint64_t kPoolFallback = 1ULL << 30U;

Server* serverOf(const void* data) {
    return static_cast<Server*>(const_cast<void*>(data));
}

std::uint64_t poolLimit() {
    const std::uint64_t memory = platform::physicalMemoryBytes();
    return memory == 0 ? kPoolFallback : memory / kPoolShare;
}

std::uint32_t hostAddressFor(const Options& options) {
    if (options.hostAddress) return *options.hostAddress;
    return platform::localHostAddress().value_or(platform::kLoopbackAddress);
}

std::string addressText(const uv_tcp_t& tcp) {
    sockaddr_in name{};
    int length = sizeof name;
    uv_tcp_getsockname(&tcp, reinterpret_cast<sockaddr*>(&name), &length);
    return "tcp:" + platform::dottedAddress(ntohl(name.sin_addr.s_addr)) + ':' +
           std::to_string(ntohs(name.sin_port));
}

template <class Handle>
void closeHandle(Handle& handle) {
    auto* plain = reinterpret_cast<uv_handle_t*>(&handle);
    if (uv_is_closing(plain) == 0) uv_close(plain, nullptr);
}

}  // namespace

Server::Server(const Options& options, const Log& log)
    : options_(options),
      log_(log),
      pool_(poolLimit()),
      router_(counters_),
      context_{loop_,
               log_,
               counters_,
               pool_,
               router_,
               batch_,
               options.queueLimit,
               hostAddressFor(options),
               [this](Connection& connection) { forget(connection); }} {
    uv_loop_init(&loop_);
    uv_tcp_init(&loop_, &listener_);
    uv_timer_init(&loop_, &tick_);
    uv_signal_init(&loop_, &terminate_);
    uv_signal_init(&loop_, &interrupt_);
    listener_.data = tick_.data = terminate_.data = interrupt_.data = this;
}

Server::~Server() {
    for (auto& [connection, holder] : connections_) connection->destroy();
    closeHandles();
    uv_run(&loop_, UV_RUN_DEFAULT);
    uv_loop_close(&loop_);
}

bool Server::start() {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(options_.listenAddress);
    local.sin_port = htons(options_.listenPort);
    int status = uv_tcp_bind(&listener_, reinterpret_cast<const sockaddr*>(&local), 0);
    if (status == 0) {
        status = uv_listen(reinterpret_cast<uv_stream_t*>(&listener_), kBacklog,
                           [](uv_stream_t* listener, int result) {
                               serverOf(listener->data)->onConnection(result);
                           });
    }
    if (status != 0) {
        log_.error("cannot listen on tcp:" + platform::dottedAddress(options_.listenAddress) + ':' +
                   std::to_string(options_.listenPort) + ": " + uv_strerror(status));
        return false;
    }
    address_ = addressText(listener_);
    uv_timer_start(
        &tick_, [](uv_timer_t* timer) { serverOf(timer->data)->onTick(); }, kTickMs, kTickMs);
    const auto onSignal = [](uv_signal_t* handle, int) { serverOf(handle->data)->stop(); };
    uv_signal_start(&terminate_, onSignal, platform::signal_number::terminate());
    uv_signal_start(&interrupt_, onSignal, platform::signal_number::interrupt());
    log_.info("listening on " + address_ + ", " + std::to_string(options_.queueLimit) +
              " bytes may wait for one session, " + std::to_string(pool_.limit()) + " for all");
    return true;
}

int Server::run() {
    uv_run(&loop_, UV_RUN_DEFAULT);
    logCounters();
    return 0;
}

void Server::onConnection(int status) {
    if (status != 0) return log_.warning(std::string("cannot accept: ") + uv_strerror(status));
    auto made = std::make_unique<Connection>(context_);
    Connection* connection = made.get();
    connections_.emplace(connection, std::move(made));
    if (!connection->accept(reinterpret_cast<uv_stream_t*>(&listener_))) connection->destroy();
    batch_.end();
}

void Server::forget(Connection& connection) {
    connections_.erase(&connection);
    if (stopping_ && connections_.empty()) closeHandles();
}

void Server::onTick() {
    const bool late = stopping_ && now() >= stopBy_;
    for (auto& [connection, holder] : connections_) {
        if (late) {
            connection->destroy();
        } else {
            connection->tick();
        }
    }
    batch_.end();
}

void Server::stop() {
    if (stopping_) return;
    stopping_ = true;
    stopBy_ = now() + Connection::kEndingMs;
    log_.info("stopping, " + std::to_string(connections_.size()) + " connections open");
    closeHandle(listener_);
    uv_timer_start(
        &tick_, [](uv_timer_t* timer) { serverOf(timer->data)->onTick(); }, kStoppingTickMs,
        kStoppingTickMs);
    for (auto& [connection, holder] : connections_) connection->shutDown();
    batch_.end();
    if (connections_.empty()) closeHandles();
}

// Closing the handles makes libuv restore the default signal handling; a second signal before the
// exit must not change the exit status.
void Server::closeHandles() {
    const std::array endingSignals{platform::signal_number::terminate(),
                                   platform::signal_number::interrupt()};
    platform::blockSignals(endingSignals);
    closeHandle(listener_);
    closeHandle(tick_);
    closeHandle(terminate_);
    closeHandle(interrupt_);
}

void Server::logCounters() const {
    if (!log_.enabled(LogLevel::Info)) return;
    std::string line = "counted:";
    const auto table = counterTable();
    for (std::size_t i = 0; i < table.size(); ++i) {
        const std::uint64_t value = counters_[static_cast<Counter>(i)];
        if (value != 0) line += std::string(" ") + table[i].name + '=' + std::to_string(value);
    }
    log_.info(line);
}

}  // namespace kvx::rvd
