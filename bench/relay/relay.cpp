// The baselines for a broker: one thread, one epoll set, and nothing but the least of the work.
//
//   relay copy SENDERS RECEIVERS   copies what each sender of a group writes to every receiver of
//                                  it, and back, unseen; connections join groups as they come
//   relay route                    finds the receivers of each message by its subject, in one hash
//                                  table, and writes once to each receiver for all that was read
//
// Both print "relay ready on tcp:127.0.0.1:<port>" and run until they are killed. A routed message
// is a length word and a word for the length of the subject (`kListen` beside it: the connection
// listens to that subject, and gets this message as its own echo), the subject, and any bytes.

#include <sys/epoll.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bench/relay/Routed.h"
#include "platform/Socket.h"

namespace {

using namespace kvx::platform;
using kvx::bench::routed::kHeader;
using kvx::bench::routed::kListen;
using Bytes = std::span<const std::byte>;

constexpr std::size_t kBuffer = 64 * 1024;  // bytes read at a time
constexpr int kEvents = 64;

// A connection.
struct End {
    Socket socket;
    std::size_t group = 0;
    bool isSender = false;
    std::vector<std::byte> part;  // of a message, read without its rest
};

// Waits for a receiver that is behind, as all senders then have to.
void write(const End& to, Bytes bytes) {
    while (!bytes.empty()) {
        const IoResult sent = sendSome(to.socket.get(), bytes);
        bytes = bytes.subspan(sent.bytes);
        if (sent.error != 0 && sent.error != socket_error::kWouldBlock) return;
        if (sent.error != 0) waitSocket(to.socket.get(), kWritable, kForever);
    }
}

class Loop {
  public:
    explicit Loop(SocketHandle listener) : listener_(listener), buffer_(kBuffer) {
        watch(listener_);
    }
    virtual ~Loop() = default;
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    void run() {
        std::array<epoll_event, kEvents> events{};
        for (;;) {
            const int count = epoll_wait(epoll_, events.data(), kEvents, -1);
            for (int i = 0; i < count; ++i) handle(events[static_cast<std::size_t>(i)]);
        }
    }

  protected:
    void watch(int descriptor) const {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.fd = descriptor;
        epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event);
    }
    /// `watch` begins to read it.
    virtual void accepted(End& end) = 0;
    virtual void received(End& from, Bytes bytes) = 0;
    virtual void closed(End& end) = 0;

  private:
    void handle(const epoll_event& event) {
        if (event.data.fd == listener_) return accept();
        const auto found = ends_.find(event.data.fd);
        if (found != ends_.end()) read(*found->second);
    }

    void accept() {
        int error = 0;
        auto end = std::make_unique<End>();
        end->socket = acceptTcp(listener_, error);
        if (!end->socket) return;
        setNonBlocking(end->socket.get(), true);
        setNoDelay(end->socket.get(), true);
        End& kept = *end;
        ends_[end->socket.get()] = std::move(end);
        accepted(kept);
    }

    void read(End& from) {
        const IoResult got = receiveSome(from.socket.get(), buffer_);
        if (got.error == socket_error::kWouldBlock) return;
        if (got.bytes != 0) return received(from, Bytes(buffer_).first(got.bytes));
        closed(from);
        ends_.erase(from.socket.get());
    }

    const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    const SocketHandle listener_;
    std::vector<std::byte> buffer_;
    std::unordered_map<int, std::unique_ptr<End>> ends_;
};

class Relay : public Loop {
  public:
    Relay(SocketHandle listener, std::size_t senders, std::size_t receivers)
        : Loop(listener), senders_(senders), size_(senders + receivers) {}

  private:
    struct Group {
        std::vector<End*> senders;
        std::vector<End*> receivers;
    };

    void accepted(End& end) override {
        if (count_ % size_ == 0) groups_.emplace_back();
        end.group = groups_.size() - 1;
        end.isSender = count_++ % size_ < senders_;
        Group& group = groups_.back();
        (end.isSender ? group.senders : group.receivers).push_back(&end);
        if (count_ % size_ != 0) return;
        for (const End* const sender : group.senders) watch(sender->socket.get());
        for (const End* const receiver : group.receivers) watch(receiver->socket.get());
    }
    void received(End& from, Bytes bytes) override {
        const Group& group = groups_[from.group];
        for (End* const to : from.isSender ? group.receivers : group.senders) write(*to, bytes);
    }
    void closed(End& end) override {
        std::erase(groups_[end.group].senders, &end);
        std::erase(groups_[end.group].receivers, &end);
    }

    const std::size_t senders_;
    const std::size_t size_;
    std::size_t count_ = 0;
    std::vector<Group> groups_;
};

class Router : public Loop {
  public:
    using Loop::Loop;

  private:
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    struct Gathered {
        End* to;
        std::vector<std::byte> bytes;
    };

    void accepted(End& end) override { watch(end.socket.get()); }
    void received(End& from, Bytes bytes) override {
        if (!from.part.empty()) {
            from.part.insert(from.part.end(), bytes.begin(), bytes.end());
            const std::vector<std::byte> whole = std::move(from.part);
            return routeAll(from, whole);
        }
        routeAll(from, bytes);
    }
    void closed(End& end) override {
        for (auto& [subject, listeners] : listeners_) std::erase(listeners, &end);
    }

    void routeAll(End& from, Bytes bytes) {
        while (bytes.size() >= kHeader) {
            const std::size_t length = kvx::loadBig32(bytes.data());
            if (bytes.size() < length) break;
            route(from, bytes.first(length));
            bytes = bytes.subspan(length);
        }
        from.part.assign(bytes.begin(), bytes.end());
        for (std::size_t i = 0; i < used_; ++i) {
            write(*gathered_[i].to, gathered_[i].bytes);
            gathered_[i].bytes.clear();
        }
        used_ = 0;
    }
    void route(End& from, Bytes message) {
        const std::uint32_t word = kvx::loadBig32(message.data() + 4);
        const std::string_view subject(reinterpret_cast<const char*>(message.data()) + kHeader,
                                       word & ~kListen);
        if ((word & kListen) != 0) {
            listeners_[std::string(subject)].push_back(&from);
            return gather(from, message);
        }
        const auto found = listeners_.find(subject);
        if (found == listeners_.end()) return;
        for (End* const to : found->second) gather(*to, message);
    }
    void gather(End& to, Bytes message) {
        std::size_t i = 0;
        while (i < used_ && gathered_[i].to != &to) ++i;
        if (i == gathered_.size()) gathered_.emplace_back();
        if (i == used_) gathered_[used_++].to = &to;
        gathered_[i].bytes.insert(gathered_[i].bytes.end(), message.begin(), message.end());
    }

    std::unordered_map<std::string, std::vector<End*>, Hash, std::equal_to<>> listeners_;
    std::vector<Gathered> gathered_;  // for the receivers of what is being routed
    std::size_t used_ = 0;            // of them
};

std::size_t numberOf(const char* text) {
    return static_cast<std::size_t>(std::strtoul(text, nullptr, 10));
}

}  // namespace

int main(int argc, char** argv) {
    int error = 0;
    const Socket listener = listenTcp({kLoopbackAddress, 0}, error);
    const std::string_view what = argc > 1 ? argv[1] : "";
    if (!listener || (argc != 4 && what != "route")) return 1;
    std::printf("relay ready on tcp:127.0.0.1:%u\n", localEndpoint(listener.get())->port);
    std::fflush(stdout);
    if (what == "route") {
        Router(listener.get()).run();
    } else {
        Relay(listener.get(), numberOf(argv[2]), numberOf(argv[3])).run();
    }
}
