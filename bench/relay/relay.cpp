// relay: the baseline for a broker. One thread, one epoll set; pairs the accepted connections and
// copies bytes between the two unseen.
//
//   relay        prints "relay ready on tcp:127.0.0.1:<port>" and copies until it is killed

#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <unordered_map>
#include <vector>

#include "platform/Socket.h"

namespace {

using namespace kvx::platform;

constexpr std::size_t kBuffer = 256 * 1024;  // bytes copied at a time, as many as rvd reads
constexpr int kEvents = 64;

// One end of a pair. `held` has the other end's bytes that this one's socket did not take.
struct End {
    Socket socket;
    End* other = nullptr;
    std::vector<std::byte> held;
};

class Relay {
  public:
    explicit Relay(SocketHandle listener) : listener_(listener), buffer_(kBuffer) {
        watch(EPOLL_CTL_ADD, listener_, EPOLLIN);
    }

    void run() {
        std::array<epoll_event, kEvents> events{};
        for (;;) {
            const int count = epoll_wait(epoll_, events.data(), kEvents, -1);
            for (int i = 0; i < count; ++i) handle(events[static_cast<std::size_t>(i)]);
        }
    }

  private:
    void watch(int operation, int descriptor, unsigned events) {
        epoll_event event{};
        event.events = events;
        event.data.fd = descriptor;
        epoll_ctl(epoll_, operation, descriptor, &event);
    }

    void handle(const epoll_event& event) {
        if (event.data.fd == listener_) return accept();
        const auto found = ends_.find(event.data.fd);
        if (found == ends_.end()) return;
        End& end = *found->second;
        if ((event.events & EPOLLOUT) != 0) writeHeld(end);
        if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) copyFrom(end);
    }

    void accept() {
        int error = 0;
        auto end = std::make_unique<End>();
        end->socket = acceptTcp(listener_, error);
        if (!end->socket) return;
        setNonBlocking(end->socket.get(), true);
        setNoDelay(end->socket.get(), true);
        if (single_ != nullptr) {
            end->other = single_;
            single_->other = end.get();
            watch(EPOLL_CTL_MOD, single_->socket.get(), EPOLLIN);
            single_ = nullptr;
            watch(EPOLL_CTL_ADD, end->socket.get(), EPOLLIN);
        } else {
            single_ = end.get();
            watch(EPOLL_CTL_ADD, end->socket.get(), 0);
        }
        ends_[end->socket.get()] = std::move(end);
    }

    void copyFrom(End& from) {
        const IoResult got = receiveSome(from.socket.get(), buffer_);
        if (got.error == socket_error::kWouldBlock) return;
        if (got.bytes == 0) return close(from);
        const std::span<const std::byte> bytes(buffer_.data(), got.bytes);
        const IoResult sent = sendSome(from.other->socket.get(), bytes);
        if (sent.bytes == bytes.size()) return;
        from.other->held.assign(bytes.begin() + static_cast<std::ptrdiff_t>(sent.bytes),
                                bytes.end());
        watch(EPOLL_CTL_MOD, from.socket.get(), 0);
        watch(EPOLL_CTL_MOD, from.other->socket.get(), EPOLLOUT | EPOLLIN);
    }

    void writeHeld(End& to) {
        const IoResult sent = sendSome(to.socket.get(), to.held);
        to.held.erase(to.held.begin(), to.held.begin() + static_cast<std::ptrdiff_t>(sent.bytes));
        if (!to.held.empty()) return;
        watch(EPOLL_CTL_MOD, to.socket.get(), EPOLLIN);
        watch(EPOLL_CTL_MOD, to.other->socket.get(), EPOLLIN);
    }

    void close(End& end) {
        const int mine = end.socket.get();
        const int others = end.other != nullptr ? end.other->socket.get() : kNoSocket;
        if (single_ == &end) single_ = nullptr;
        ends_.erase(mine);
        ends_.erase(others);
    }

    const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    const SocketHandle listener_;
    std::vector<std::byte> buffer_;
    std::unordered_map<int, std::unique_ptr<End>> ends_;
    End* single_ = nullptr;  // accepted, without a partner
};

}  // namespace

int main() {
    int error = 0;
    const Socket listener = listenTcp({kLoopbackAddress, 0}, error);
    if (!listener) return 1;
    std::printf("relay ready on tcp:127.0.0.1:%u\n", localEndpoint(listener.get())->port);
    std::fflush(stdout);
    Relay(listener.get()).run();
}
