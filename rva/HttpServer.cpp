// One thread moves bytes between memory and sockets and never blocks on a peer, so an idle
// connection costs only a descriptor.
//
// A connection goes through four states: the head is read, then the body, then the answer is sent
// as it is made, then further input is dropped until the peer closes: closing with unread input
// would reset the connection and could lose the end of the answer.

#include "rva/HttpServer.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <span>
#include <utility>
#include <vector>

#include "tools/bus/Complain.h"

namespace kvx::rva {

namespace {

using platform::Milliseconds;

constexpr std::size_t kMostSpare = 128;  // connections whose answer is not being made
constexpr std::size_t kMostHead = 16384;
constexpr std::size_t kMostBody = 1U << 20U;
constexpr int kAcceptedAtOnce = 16;
constexpr Milliseconds kRequestMs = 10'000;
constexpr Milliseconds kEndingMs = 5'000;
constexpr Milliseconds kAcceptPauseMs = 10;  // after a failure
constexpr std::string_view kHeadEnd = "\r\n\r\n";
constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";

}  // namespace

HttpServer::~HttpServer() {
    stop();
}

void HttpServer::callEvery(Milliseconds interval, std::function<void()> call) {
    call_ = std::move(call);
    callInterval_ = interval;
    callAt_ = platform::monotonicMs();
}

bool HttpServer::start(platform::Endpoint local) {
    int error = 0;
    return start(platform::listenTcp(local, error));
}

bool HttpServer::start(platform::Socket listening) {
    socket_ = std::move(listening);
    if (!socket_ || !wakeUp_->valid()) return false;
    platform::setNonBlocking(socket_.get(), true);
    const auto bound = platform::localEndpoint(socket_.get());
    port_ = bound ? bound->port : 0;
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
    wakeUp_->notify();
    thread_.join();
    for (auto& [handle, connection] : connections_) {
        if (connection.state != Connection::State::Answering) continue;
        if (connection.answer) connection.answer->abandon();
        send(connection);
    }
    while (!connections_.empty()) close(connections_.begin()->first);
    socket_.reset();
}

// One wait and its results. False when the wait failed.
bool HttpServer::step() {
    const int error = sockets_.wait(timeToFirstDeadline());
    if (error != 0 && error != platform::socket_error::kInterrupted) return false;
    std::vector<platform::PollSet::Slot> ready;
    bool isAsked = false;
    for (std::size_t i = 0; i < sockets_.size() && error == 0; ++i) {
        const auto slot = sockets_.slot(i);
        if (slot.ready == 0) continue;
        slot.socket == socket_.get() ? static_cast<void>(isAsked = true) : ready.push_back(slot);
    }
    for (const auto& slot : ready) {
        const auto found = connections_.find(slot.socket);
        if (found != connections_.end() && !proceed(found->second, slot.ready)) close(slot.socket);
    }
    // What has come to be sent meanwhile, from whatever thread.
    std::vector<platform::SocketHandle> ended;
    for (auto& [socket, connection] : connections_) {
        const bool mayHaveSome =
            connection.state == Connection::State::Answering && !connection.isSending();
        if (mayHaveSome && !proceed(connection, 0)) ended.push_back(socket);
    }
    for (const auto socket : ended) close(socket);
    // Last, so that a new connection is not mistaken for a closed one of the same number.
    for (int i = 0; isAsked && i < kAcceptedAtOnce && acceptOne(); ++i) {
    }
    closeOverdue();
    callWhenDue();
    return true;
}

void HttpServer::callWhenDue() {
    const Milliseconds now = platform::monotonicMs();
    if (now < callAt_) return;
    callAt_ = now + callInterval_;
    call_();
}

Milliseconds HttpServer::timeToFirstDeadline() const {
    Milliseconds first = callAt_;
    for (const auto& [socket, connection] : connections_) {
        first = std::min(first, connection.deadline);
        if (connection.answer)
            first = std::min(first, connection.answer->deadline().value_or(kNever));
    }
    if (first == kNever) return platform::kForever;
    return std::max<Milliseconds>(first - platform::monotonicMs(), 0);
}

// False when nobody waits any more.
bool HttpServer::acceptOne() {
    int error = 0;
    platform::Socket socket = platform::acceptTcp(socket_.get(), error);
    if (!socket) {
        // Without descriptors the listener stays ready: pause instead of spinning.
        if (error != platform::socket_error::kWouldBlock) platform::sleepMs(kAcceptPauseMs);
        return false;
    }
    makeRoom();
    platform::setNonBlocking(socket.get(), true);
    platform::setNoDelay(socket.get(), true);
    const platform::SocketHandle handle = socket.get();
    if (!sockets_.add(handle, platform::kReadable)) return true;
    Connection& connection = connections_[handle];
    connection.socket = std::move(socket);
    connection.since = platform::monotonicMs();
    connection.deadline = connection.since + kRequestMs;
    return true;
}

void HttpServer::makeRoom() {
    std::size_t spare = 0;
    const Connections::value_type* oldest = nullptr;
    for (const auto& one : connections_) {
        if (!one.second.isSpare()) continue;
        ++spare;
        if (oldest == nullptr || one.second.since < oldest->second.since) oldest = &one;
    }
    if (spare >= kMostSpare) close(oldest->first);
}

void HttpServer::close(platform::SocketHandle socket) {
    const auto found = connections_.find(socket);
    if (found == connections_.end()) return;
    sockets_.remove(socket, platform::kReadable | platform::kWritable);
    const auto answer = std::move(found->second.answer);
    connections_.erase(found);
    if (answer) answer->goAway();
}

void HttpServer::closeOverdue() {
    std::vector<platform::SocketHandle> ended;
    for (auto& [socket, connection] : connections_) {
        if (!overdue(connection)) ended.push_back(socket);
    }
    for (const auto socket : ended) close(socket);
}

// False when it is to be closed.
bool HttpServer::overdue(Connection& connection) {
    const Milliseconds now = platform::monotonicMs();
    const auto& answer = connection.answer;
    if (answer && answer->deadline().value_or(kNever) <= now) {
        answer->giveUp("TimedOut", "the bus has not answered in time");
        return proceed(connection, 0);
    }
    if (connection.deadline > now) return true;
    const bool isMade = connection.state != Connection::State::Answering || connection.isLast;
    if (isMade || !answer->isOpen()) return false;
    const auto what = fmt::format("has taken nothing for {} s", stalled_ / 1000);
    bus::complain(fmt::format("an HTTP client {}: its stream is ended", what));
    connection.deadline = now + kEndingMs;
    return answer->giveUp("TooSlow", "this client " + what);
}

// Serves a connection that is ready, or may have something to send. False at its end.
bool HttpServer::proceed(Connection& connection, unsigned ready) {
    if ((ready & platform::kReadable) != 0 && !read(connection)) return false;
    if (connection.state == Connection::State::Answering && !send(connection)) return false;
    return watch(connection);
}

bool HttpServer::watch(Connection& connection) {
    unsigned wanted = platform::kReadable;
    if (connection.state == Connection::State::Answering && connection.isSending()) {
        wanted = connection.isLast ? platform::kWritable : wanted | platform::kWritable;
    }
    if (wanted == connection.interest) return true;
    const auto socket = connection.socket.get();
    sockets_.remove(socket, connection.interest & ~wanted);
    const unsigned added = wanted & ~connection.interest;
    connection.interest = wanted;
    return added == 0 || sockets_.add(socket, added);
}

bool HttpServer::read(Connection& connection) {
    std::array<char, 16384> buffer{};
    const auto got =
        platform::receiveSome(connection.socket.get(), std::as_writable_bytes(std::span(buffer)));
    if (got.error != 0) return got.error == platform::socket_error::kWouldBlock;
    const bool isReading =
        connection.state == Connection::State::Head || connection.state == Connection::State::Body;
    // A client that closes its sending side waits for no more than has been made.
    if (!isReading) return got.bytes != 0 || connection.isLast;
    connection.received.append(buffer.data(), got.bytes);
    if (got.bytes != 0) return takeReceived(connection);
    if (connection.received.empty()) return false;
    replyAtOnce(connection, errorReply(400, "BadRequest", "the request breaks off"));
    return true;
}

bool HttpServer::takeReceived(Connection& connection) {
    std::string& received = connection.received;
    if (connection.state == Connection::State::Head) {
        const auto end = received.find(kHeadEnd);
        const std::size_t size = end == std::string::npos ? 0 : end + kHeadEnd.size();
        if (size == 0 ? received.size() >= kMostHead : size > kMostHead) {
            replyAtOnce(connection, errorReply(431, "TooLarge", "a head of more than 16 KiB"));
            return true;
        }
        if (size == 0) return true;
        if (!takeHead(connection, size)) return true;
    }
    if (received.size() < connection.bodyLeft) return true;
    connection.request.body = received.substr(0, connection.bodyLeft);
    received = {};
    return answer(connection);
}

// False when the request has been refused.
bool HttpServer::takeHead(Connection& connection, std::size_t size) {
    auto head = readHead(std::string_view(connection.received).substr(0, size));
    connection.received.erase(0, size);
    const auto refuse = [&](const HttpReply& reply) {
        replyAtOnce(connection, reply);
        return false;
    };
    if (!head) return refuse(errorReply(400, "BadRequest", "no request of HTTP/1"));
    connection.hasNoBody = head->method == "HEAD";
    const auto body = bodySize(*head);
    if (!body) return refuse(errorReply(400, "BadRequest", "a body needs one Content-Length"));
    if (*body > kMostBody) return refuse(errorReply(413, "TooLarge", "a body of more than 1 MiB"));
    if (const auto refusal = handler_.refuse(*head)) return refuse(*refusal);
    const bool waits = *body > connection.received.size() && head->headers.contains("expect");
    if (waits) {
        platform::sendSome(connection.socket.get(), std::as_bytes(std::span(kContinue)));
    }
    connection.request = std::move(*head);
    connection.bodyLeft = *body;
    connection.state = Connection::State::Body;
    connection.received.reserve(*body);
    return true;
}

bool HttpServer::answer(Connection& connection) {
    auto answer = std::make_shared<HttpAnswer>(wakeUp_);
    connection.answer = answer;
    connection.state = Connection::State::Answering;
    connection.deadline = kNever;
    handler_.answer(std::exchange(connection.request, {}),
                    HttpAnswerPtr(answer.get(), [answer](HttpAnswer*) { answer->abandon(); }));
    return true;
}

void HttpServer::replyAtOnce(Connection& connection, const HttpReply& reply) const {
    connection.state = Connection::State::Answering;
    connection.sending = headOf(reply, false) + (connection.hasNoBody ? "" : reply.body);
    connection.isLast = true;
    connection.received = {};
    connection.deadline = platform::monotonicMs() + stalled_;
}

// Sends what there is. False at the end of the connection.
bool HttpServer::send(Connection& connection) {
    for (;;) {
        if (!connection.isSending() && !refill(connection)) return true;
        const std::span<const char> rest = std::span(connection.sending).subspan(connection.sent);
        const auto done = platform::sendSome(connection.socket.get(), std::as_bytes(rest));
        if (done.error != 0) return done.error == platform::socket_error::kWouldBlock;
        connection.sent += done.bytes;
        if (!connection.isLast || done.bytes != 0) {
            connection.deadline = platform::monotonicMs() + stalled_;
        }
        if (connection.isSending() || !connection.isLast) continue;
        if (connection.isBroken) return false;
        connection.state = Connection::State::Ending;
        connection.deadline = platform::monotonicMs() + kEndingMs;
        return platform::shutdownSending(connection.socket.get()) == 0;
    }
}

// Takes what is to be sent next. False when there is nothing now.
bool HttpServer::refill(Connection& connection) const {
    if (connection.isLast) return true;
    if (!connection.answer->hasSome()) {
        connection.deadline = kNever;
        return false;
    }
    auto taken = connection.answer->take();
    connection.sending = std::move(taken.bytes);
    connection.sent = 0;
    connection.isLast = taken.isWhole || taken.isBroken || connection.hasNoBody;
    connection.isBroken = taken.isBroken;
    if (connection.hasNoBody) {
        connection.sending.resize(connection.sending.find(kHeadEnd) + kHeadEnd.size());
    }
    if (connection.isLast) connection.answer->goAway();
    connection.deadline = platform::monotonicMs() + stalled_;
    return true;
}

}  // namespace kvx::rva
