// One thread moves bytes between memory and sockets and never blocks on a peer, so an idle
// connection costs only a descriptor.
//
// A connection goes through three states: the request is read until its head is complete, then the
// answer is written and the sending side shut down, then further input is dropped until the peer
// closes: closing with unread input would reset the connection and could lose the answer.

#include "rva/HttpServer.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>
#include <vector>

namespace kvx::rva {

namespace {

constexpr std::size_t kMostConnections = 64;
constexpr std::size_t kMostRequestBytes = 16384;  // of one request's head
constexpr platform::Milliseconds kConnectionMs = 5000;
constexpr platform::Milliseconds kAcceptPauseMs = 10;  // after a failure
constexpr std::string_view kHeadEnd = "\r\n\r\n";

}  // namespace

HttpServer::HttpServer(Answer answer) : answer_(std::move(answer)) {}

HttpServer::~HttpServer() {
    stop();
}

bool HttpServer::start(std::uint16_t port) {
    int error = 0;
    socket_ = platform::listenTcp({platform::kLoopbackAddress, port}, error);
    if (!socket_ || !wakeUp_.valid()) return false;
    platform::setNonBlocking(socket_.get(), true);
    const auto local = platform::localEndpoint(socket_.get());
    port_ = local ? local->port : 0;
    if (!sockets_.add(socket_.get(), platform::kReadable)) return false;
    thread_ = std::thread([this] {
        while (!stopping_ && step()) {
        }
        ended_ = true;
    });
    return true;
}

void HttpServer::stop() {
    if (!thread_.joinable()) return;
    stopping_ = true;
    wakeUp_.notify();
    thread_.join();
    connections_.clear();
    socket_.reset();
}

// One wait and its results. False when the wait failed.
bool HttpServer::step() {
    const int error = sockets_.wait(timeToFirstDeadline());
    if (error != 0 && error != platform::socket_error::kInterrupted) return false;
    std::vector<platform::SocketHandle> ready;
    for (std::size_t i = 0; i < sockets_.size() && error == 0; ++i) {
        const auto slot = sockets_.slot(i);
        if (slot.ready != 0) ready.push_back(slot.socket);
    }
    for (const auto socket : ready) {
        const auto found = connections_.find(socket);
        if (found != connections_.end() && !proceed(found->second)) close(socket);
    }
    // Last, so that a new connection is not mistaken for a closed one of the same number.
    if (std::find(ready.begin(), ready.end(), socket_.get()) != ready.end()) accept();
    closeOverdue();
    return true;
}

platform::Milliseconds HttpServer::timeToFirstDeadline() const {
    if (connections_.empty()) return platform::kForever;
    const auto left = oldest()->second.deadline - platform::monotonicMs();
    return std::max<platform::Milliseconds>(left, 0);
}

std::map<platform::SocketHandle, HttpServer::Connection>::const_iterator HttpServer::oldest()
    const {
    return std::min_element(connections_.begin(), connections_.end(),
                            [](const auto& one, const auto& other) {
                                return one.second.deadline < other.second.deadline;
                            });
}

void HttpServer::accept() {
    int error = 0;
    platform::Socket socket = platform::acceptTcp(socket_.get(), error);
    if (!socket) {
        // Without descriptors the listener stays ready: pause instead of spinning.
        if (error != platform::socket_error::kWouldBlock) platform::sleepMs(kAcceptPauseMs);
        return;
    }
    if (connections_.size() == kMostConnections) close(oldest()->first);
    platform::setNonBlocking(socket.get(), true);
    const platform::SocketHandle handle = socket.get();
    if (!sockets_.add(handle, platform::kReadable)) return;
    Connection& connection = connections_[handle];
    connection.socket = std::move(socket);
    connection.deadline = platform::monotonicMs() + kConnectionMs;
}

void HttpServer::close(platform::SocketHandle socket) {
    sockets_.remove(socket, platform::kReadable | platform::kWritable);
    connections_.erase(socket);
}

void HttpServer::closeOverdue() {
    while (!connections_.empty() && oldest()->second.deadline <= platform::monotonicMs()) {
        close(oldest()->first);
    }
}

// Serves a ready connection. False at its end.
bool HttpServer::proceed(Connection& connection) {
    const unsigned before = connection.interest();
    const bool goesOn = connection.state == Connection::State::Reading   ? read(connection)
                        : connection.state == Connection::State::Writing ? write(connection)
                                                                         : drop(connection);
    if (!goesOn || connection.interest() == before) return goesOn;
    sockets_.remove(connection.socket.get(), before);
    return sockets_.add(connection.socket.get(), connection.interest());
}

bool HttpServer::read(Connection& connection) {
    std::array<char, 4096> buffer{};
    const std::size_t room = kMostRequestBytes - connection.request.size();
    const auto bytes =
        std::as_writable_bytes(std::span(buffer).first(std::min(room, buffer.size())));
    const auto got = platform::receiveSome(connection.socket.get(), bytes);
    if (got.error != 0) return got.error == platform::socket_error::kWouldBlock;
    const std::size_t known = connection.request.size();
    connection.request.append(buffer.data(), got.bytes);
    const std::size_t from = known - std::min(known, kHeadEnd.size() - 1);
    const bool isWhole = connection.request.find(kHeadEnd, from) != std::string::npos;
    const bool isAll = got.bytes == 0 || connection.request.size() == kMostRequestBytes;
    if (!isWhole && !isAll) return true;
    serve(connection);
    return write(connection);
}

void HttpServer::serve(Connection& connection) {
    connection.answer = answer_(connection.request);
    connection.state = Connection::State::Writing;
}

bool HttpServer::write(Connection& connection) {
    const std::span<const char> rest = std::span(connection.answer).subspan(connection.sent);
    const auto done = platform::sendSome(connection.socket.get(), std::as_bytes(rest));
    if (done.error != 0) return done.error == platform::socket_error::kWouldBlock;
    connection.sent += done.bytes;
    if (connection.sent < connection.answer.size()) return true;
    connection.state = Connection::State::Ending;
    return platform::shutdownSending(connection.socket.get()) == 0;
}

bool HttpServer::drop(Connection& connection) {
    std::array<std::byte, 4096> buffer{};
    const auto got = platform::receiveSome(connection.socket.get(), buffer);
    return got.bytes != 0 || got.error == platform::socket_error::kWouldBlock;
}

}  // namespace kvx::rva
