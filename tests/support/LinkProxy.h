#pragma once

#include <poll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Socket.h"

namespace kvx::test {

/// A bad line: a TCP proxy in a thread of the test. What connects to it is connected to a port of
/// the loopback, and both see what becomes of the line.
class LinkProxy {
  public:
    /// Passes everything on, to `target`. Throws `std::runtime_error` when there is no port.
    explicit LinkProxy(const std::string& target)
        : target_(static_cast<std::uint16_t>(std::stoi(target))) {
        int error = 0;
        listener_ = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
        if (!listener_) throw std::runtime_error("no port for a proxy");
        platform::setNonBlocking(listener_.get(), true);
        platform::setBufferSizes(listener_.get(), kKernelBytes, kKernelBytes);
        port_ = std::to_string(platform::localEndpoint(listener_.get())->port);
        thread_ = std::thread([this] { run(); });
    }
    ~LinkProxy() {
        stops_ = true;
        thread_.join();
    }
    LinkProxy(const LinkProxy&) = delete;
    LinkProxy& operator=(const LinkProxy&) = delete;

    [[nodiscard]] const std::string& port() const { return port_; }
    [[nodiscard]] std::string url() const { return "nats://127.0.0.1:" + port_; }

    /// Connections stay open and nothing is read from them.
    void stall() { bytesPerTick_ = 0; }
    /// At most so many bytes pass each way in a tick of 10 ms.
    void throttle(std::size_t bytesPerTick) { bytesPerTick_ = bytesPerTick; }
    /// Closes all connections, and at once those that come, until `restore`.
    void cut() { isCut_ = true; }
    /// As in the beginning.
    void restore() {
        bytesPerTick_ = kAll;
        isCut_ = false;
    }
    /// Connections of now.
    [[nodiscard]] std::size_t connections() const { return connections_; }

  private:
    static constexpr std::size_t kAll = 65'536;
    static constexpr int kKernelBytes = 65'536;
    static constexpr int kTickMs = 10;

    // One direction: from where, to where, and what is under way.
    struct Way {
        platform::SocketHandle from;
        platform::SocketHandle to;
        std::vector<std::byte> bytes;

        // False when an end has closed.
        bool pump(std::size_t most) {
            if (bytes.empty() && most > 0) {
                bytes.resize(most);
                const auto got = platform::receiveSome(from, bytes);
                bytes.resize(got.bytes);
                if (got.bytes == 0) return got.error == platform::socket_error::kWouldBlock;
            }
            const auto sent = platform::sendSome(to, bytes);
            bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(sent.bytes));
            return sent.error == 0 || sent.error == platform::socket_error::kWouldBlock;
        }
    };
    struct Link {
        platform::Socket near;
        platform::Socket far;
        std::array<Way, 2> ways;
    };

    void run() {
        std::list<Link> links;
        while (!stops_) {
            const std::size_t most = bytesPerTick_;
            if (isCut_) links.clear();
            std::vector<pollfd> sockets{{listener_.get(), POLLIN, 0}};
            for (const Link& link : links) {
                if (most < kAll) break;  // waits for the tick only
                for (const Way& way : link.ways) {
                    if (way.bytes.empty()) sockets.push_back({way.from, POLLIN, 0});
                    if (!way.bytes.empty()) sockets.push_back({way.to, POLLOUT, 0});
                }
            }
            if (most < kAll) std::this_thread::sleep_for(std::chrono::milliseconds(kTickMs));
            (void)poll(sockets.data(), sockets.size(), most < kAll ? 0 : kTickMs);
            accept(links);
            if (most > 0) {
                std::erase_if(links, [most](Link& link) {
                    return !link.ways[0].pump(most) || !link.ways[1].pump(most);
                });
            }
            connections_ = links.size();
        }
    }

    void accept(std::list<Link>& links) {
        int error = 0;
        platform::Socket near = platform::acceptTcp(listener_.get(), error);
        if (!near || isCut_) return;
        platform::Socket far = platform::createTcpSocket(error);
        if (platform::connectSocket(far.get(), {platform::kLoopbackAddress, target_}) != 0) return;
        for (const auto socket : {near.get(), far.get()}) {
            platform::setNonBlocking(socket, true);
            platform::setNoDelay(socket, true);
        }
        const std::array<Way, 2> ways{Way{near.get(), far.get(), {}},
                                      Way{far.get(), near.get(), {}}};
        links.push_back({std::move(near), std::move(far), ways});
    }

    const std::uint16_t target_;
    platform::Socket listener_;
    std::string port_;
    std::atomic<std::size_t> bytesPerTick_ = kAll;
    std::atomic<bool> isCut_ = false;
    std::atomic<bool> stops_ = false;
    std::atomic<std::size_t> connections_ = 0;
    std::thread thread_;
};

}  // namespace kvx::test
