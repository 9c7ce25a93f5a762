// The library reads requests and writes answers; what it leaves unbounded is bounded here. Its
// server hands every accepted socket to our queue of threads, and each is served through a stream
// of ours, which knows when the request's time and bytes are used up. All requests are answered
// before the library's routing, which would match paths as regular expressions and read bodies.

#include "rva/HttpServer.h"

#include <httplib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <queue>
#include <span>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Socket.h"

namespace kvx::rva {

namespace {

constexpr const char* kLoopback = "127.0.0.1";
constexpr std::size_t kThreads = 4;
constexpr std::size_t kMostWaiting = 32;          // connections
constexpr std::size_t kMostRequestBytes = 16384;  // of one request
constexpr platform::Milliseconds kRequestMs = 5000;
constexpr platform::Milliseconds kStopCheckMs = 100;  // between two looks at the stop flag

// A few threads and a bounded queue; whoever adds to a full one waits.
class Workers : public httplib::TaskQueue {
  public:
    Workers() {
        for (std::size_t i = 0; i < kThreads; ++i) threads_.emplace_back([this] { work(); });
    }

    void enqueue(std::function<void()> job) override {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return jobs_.size() < kMostWaiting; });
        jobs_.push(std::move(job));
        changed_.notify_all();
    }

    void shutdown() override {
        {
            const std::lock_guard guard(mutex_);
            ending_ = true;
        }
        changed_.notify_all();
        for (auto& thread : threads_) thread.join();
        threads_.clear();
    }

  private:
    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return ending_ || !jobs_.empty(); });
            if (jobs_.empty()) return;
            const auto job = std::move(jobs_.front());
            jobs_.pop();
            lock.unlock();
            changed_.notify_all();
            job();
            lock.lock();
        }
    }

    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable changed_;

    // Guarded by mutex_.
    std::queue<std::function<void()>> jobs_;
    bool ending_ = false;
};

// One request's connection, which ends when its time or its bytes are used up, or the server stops.
class RequestStream : public httplib::Stream {
  public:
    RequestStream(platform::SocketHandle socket, const std::atomic<bool>& stopping)
        : socket_(socket), stopping_(stopping) {
        platform::setNonBlocking(socket_, true);
    }

    bool is_readable() const override { return !unread_.empty() || await(platform::kReadable); }
    bool is_writable() const override { return await(platform::kWritable); }

    ssize_t read(char* to, std::size_t size) override {
        if (unread_.empty() && !fill()) return -1;
        const std::size_t count = std::min(size, unread_.size());
        std::copy_n(unread_.begin(), count, to);
        unread_ = unread_.subspan(count);
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char* from, std::size_t size) override {
        if (!await(platform::kWritable)) return -1;
        const auto sent = platform::sendSome(socket_, std::as_bytes(std::span(from, size)));
        return sent.error == 0 ? static_cast<ssize_t>(sent.bytes) : -1;
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override {
        tell(platform::peerEndpoint(socket_), ip, port);
    }
    void get_local_ip_and_port(std::string& ip, int& port) const override {
        tell(platform::localEndpoint(socket_), ip, port);
    }
    socket_t socket() const override { return socket_; }

    // Takes what the peer has sent already: closing over unread bytes would take the answer back.
    void dropUnread() {
        while (platform::waitSocket(socket_, platform::kReadable, 0).ready != 0 && fill()) {
        }
    }

  private:
    bool await(unsigned interest) const {
        for (;;) {
            const auto left = deadline_ - platform::monotonicMs();
            if (left <= 0 || stopping_) return false;
            if (platform::waitSocket(socket_, interest, std::min(left, kStopCheckMs)).ready != 0) {
                return true;
            }
        }
    }

    bool fill() {
        const std::size_t room = std::min(buffer_.size(), bytesLeft_);
        if (room == 0 || !await(platform::kReadable)) return false;
        const auto got =
            platform::receiveSome(socket_, std::as_writable_bytes(std::span(buffer_).first(room)));
        bytesLeft_ -= got.bytes;
        unread_ = std::span(buffer_).first(got.bytes);
        return got.bytes > 0;
    }

    static void tell(const std::optional<platform::Endpoint>& end, std::string& ip, int& port) {
        if (!end) return;
        ip = platform::dottedAddress(end->address);
        port = end->port;
    }

    const platform::SocketHandle socket_;
    const std::atomic<bool>& stopping_;
    const platform::Milliseconds deadline_ = platform::monotonicMs() + kRequestMs;
    std::size_t bytesLeft_ = kMostRequestBytes;
    std::array<char, 4096> buffer_{};
    std::span<const char> unread_;
};

}  // namespace

class HttpServer::Listener : public httplib::Server {
  public:
    Listener() {
        new_task_queue = [] { return std::make_unique<Workers>().release(); };
        // The library's own options would let two agents share a port.
        set_socket_options([](socket_t socket) { platform::setReuseAddress(socket, true); });
        set_pre_routing_handler(
            [this](const httplib::Request& request, httplib::Response& response) {
                answer(request, response);
                return HandlerResponse::Handled;
            });
    }

    ~Listener() override { end(); }

    bool begin(std::uint16_t port) {
        port_ = port == 0 ? bind_to_any_port(kLoopback) : port;
        if (port_ <= 0 || (port != 0 && !bind_to_port(kLoopback, port))) return false;
        thread_ = std::thread([this] {
            listen_after_bind();
            ended_ = true;
        });
        // Only a running server can be stopped.
        while (!is_running() && !ended_) std::this_thread::yield();
        return !ended_;
    }

    bool hasEnded() const { return ended_; }

    void end() {
        if (!thread_.joinable()) return;
        stopping_ = true;
        stop();
        thread_.join();
    }

    // Constant once it has begun.
    std::map<std::string, HttpServer::Handler> routes_;
    int port_ = 0;

    std::atomic<std::uint64_t> requests_{0};

  private:
    bool process_and_close_socket(socket_t socket) override {
        const platform::Socket owned(socket);
        RequestStream stream(socket, stopping_);
        bool closed = false;
        // No answer is cut into ranges: the library trusts their numbers.
        const bool done = process_request(
            stream, true, closed, [](httplib::Request& request) { request.ranges.clear(); });
        platform::shutdownSending(socket);
        stream.dropUnread();
        return done;
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

    std::atomic<bool> stopping_{false};
    std::atomic<bool> ended_{false};
    std::thread thread_;
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
    return static_cast<std::uint16_t>(listener_->port_);
}

std::uint64_t HttpServer::requests() const {
    return listener_->requests_;
}

}  // namespace kvx::rva
