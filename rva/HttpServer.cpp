// The library reads requests and writes answers, from and to memory; one thread of ours moves the
// bytes between memory and sockets. So the library never waits for a peer, and a connection that
// says nothing costs a descriptor and no more. Requests are answered before the library's routing,
// which would match paths as regular expressions and read bodies.

#include "rva/HttpServer.h"

#include <httplib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Poll.h"
#include "platform/Socket.h"

namespace kvx::rva {

namespace {

constexpr std::size_t kMostConnections = 64;
constexpr std::size_t kMostRequestBytes = 16384;  // of one request's head
constexpr platform::Milliseconds kConnectionMs = 5000;
constexpr platform::Milliseconds kAcceptPauseMs = 10;  // after a failure
constexpr std::string_view kHeadEnd = "\r\n\r\n";

}  // namespace

namespace detail {

// A request in memory, and the answer to it.
class MemoryStream : public httplib::Stream {
  public:
    explicit MemoryStream(std::string_view request) : unread_(request) {}

    bool is_readable() const override { return !unread_.empty(); }
    bool is_writable() const override { return true; }
    ssize_t read(char* to, std::size_t size) override {
        const std::size_t count = unread_.copy(to, size);
        unread_.remove_prefix(count);
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const char* from, std::size_t size) override {
        answer.append(from, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return platform::kNoSocket; }

    std::string answer;

  private:
    std::string_view unread_;
};

// First the request is read, then the answer written, then what else comes is dropped until the
// peer ends: closing over unread bytes would take the answer back.
struct Connection {
    enum class State { Reading, Writing, Ending };

    platform::Socket socket;
    platform::Milliseconds deadline = platform::monotonicMs() + kConnectionMs;
    State state = State::Reading;
    std::string request;
    std::string answer;
    std::size_t sent = 0;

    unsigned interest() const {
        return state == State::Writing ? platform::kWritable : platform::kReadable;
    }
};

}  // namespace detail

class HttpServer::Listener : private httplib::Server {
    using Connection = detail::Connection;

  public:
    Listener() {
        set_pre_routing_handler(
            [this](const httplib::Request& request, httplib::Response& response) {
                answer(request, response);
                return HandlerResponse::Handled;
            });
    }

    ~Listener() override { end(); }

    bool begin(std::uint16_t port) {
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

    bool hasEnded() const { return ended_; }

    void end() {
        if (!thread_.joinable()) return;
        stopping_ = true;
        wakeUp_.notify();
        thread_.join();
        connections_.clear();
        socket_.reset();
    }

    // Constant once it has begun.
    std::map<std::string, HttpServer::Handler> routes_;
    std::uint16_t port_ = 0;

    std::atomic<std::uint64_t> requests_{0};

  private:
    // One wait and what it found. False when waiting is not possible any more.
    bool step() {
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
        // Last, so that no new connection is taken for an old one of the same number.
        if (std::find(ready.begin(), ready.end(), socket_.get()) != ready.end()) accept();
        closeOverdue();
        return true;
    }

    platform::Milliseconds timeToFirstDeadline() const {
        if (connections_.empty()) return platform::kForever;
        const auto left = oldest()->second.deadline - platform::monotonicMs();
        return std::max<platform::Milliseconds>(left, 0);
    }

    std::map<platform::SocketHandle, Connection>::const_iterator oldest() const {
        return std::min_element(connections_.begin(), connections_.end(),
                                [](const auto& one, const auto& other) {
                                    return one.second.deadline < other.second.deadline;
                                });
    }

    void accept() {
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
        connections_[handle].socket = std::move(socket);
    }

    void close(platform::SocketHandle socket) {
        sockets_.remove(socket, platform::kReadable | platform::kWritable);
        connections_.erase(socket);
    }

    void closeOverdue() {
        while (!connections_.empty() && oldest()->second.deadline <= platform::monotonicMs()) {
            close(oldest()->first);
        }
    }

    // Goes on with a connection that is ready. False when it is over.
    bool proceed(Connection& connection) {
        const unsigned before = connection.interest();
        const bool goesOn = connection.state == Connection::State::Reading   ? read(connection)
                            : connection.state == Connection::State::Writing ? write(connection)
                                                                             : drop(connection);
        if (!goesOn || connection.interest() == before) return goesOn;
        sockets_.remove(connection.socket.get(), before);
        return sockets_.add(connection.socket.get(), connection.interest());
    }

    bool read(Connection& connection) {
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

    void serve(Connection& connection) {
        detail::MemoryStream stream(connection.request);
        bool closed = false;
        // No answer is cut into ranges: the library trusts their numbers.
        process_request(stream, true, closed,
                        [](httplib::Request& request) { request.ranges.clear(); });
        connection.answer = std::move(stream.answer);
        connection.state = Connection::State::Writing;
    }

    static bool write(Connection& connection) {
        const std::span<const char> rest = std::span(connection.answer).subspan(connection.sent);
        const auto done = platform::sendSome(connection.socket.get(), std::as_bytes(rest));
        if (done.error != 0) return done.error == platform::socket_error::kWouldBlock;
        connection.sent += done.bytes;
        if (connection.sent < connection.answer.size()) return true;
        connection.state = Connection::State::Ending;
        return platform::shutdownSending(connection.socket.get()) == 0;
    }

    static bool drop(Connection& connection) {
        std::array<std::byte, 4096> buffer{};
        const auto got = platform::receiveSome(connection.socket.get(), buffer);
        return got.bytes != 0 || got.error == platform::socket_error::kWouldBlock;
    }

    void answer(const httplib::Request& request, httplib::Response& response) {
        ++requests_;
        const auto route = routes_.find(request.path);
        Answer given;
        if (request.method != "GET" && request.method != "HEAD") {
            given = {405, given.type, "only GET and HEAD\n"};
            response.set_header("Allow", "GET, HEAD");
        } else if (route == routes_.end()) {
            given = {404, given.type, "nothing here\n"};
        } else {
            given = route->second();
        }
        response.status = given.status;
        response.set_content(given.body, given.type);
    }

    platform::WakeUp wakeUp_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> ended_{false};
    std::thread thread_;

    // The thread's, while it runs.
    platform::Socket socket_;
    platform::PollSet sockets_{&wakeUp_};
    std::map<platform::SocketHandle, Connection> connections_;
};

HttpServer::HttpServer() : listener_(std::make_unique<Listener>()) {}
HttpServer::~HttpServer() = default;

void HttpServer::route(const std::string& path, Handler handler) {
    listener_->routes_[path] = std::move(handler);
}

bool HttpServer::start(std::uint16_t port) {
    return listener_->begin(port);
}

void HttpServer::stop() {
    listener_->end();
}

bool HttpServer::isServing() const {
    return !listener_->hasEnded();
}

std::uint16_t HttpServer::port() const {
    return listener_->port_;
}

std::uint64_t HttpServer::requests() const {
    return listener_->requests_;
}

}  // namespace kvx::rva
