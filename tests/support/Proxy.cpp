// One thread moves what comes, piece by piece. It looks at everything every two milliseconds, and
// at once when a socket is ready whose bytes may pass.

#include "tests/support/Proxy.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace kvx::test {

namespace {

constexpr int kLookMs = 2;
constexpr int kBuffer = 16 * 1024;  // of the kernel
// Of loopback's 64 KiB a small buffer drops some, and what was dropped comes again after minutes.
constexpr int kSegment = 1'400;

bool wouldBlock(int error) {
    return error == platform::socket_error::kWouldBlock;
}

// Both ends keep little for each other, and are felt soon when they do not read.
void narrow(const platform::Socket& socket) {
    platform::setBufferSizes(socket.get(), kBuffer, kBuffer);
    setsockopt(socket.get(), IPPROTO_TCP, TCP_MAXSEG, &kSegment, sizeof kSegment);
}

void closeWithReset(platform::Socket& socket) {
    const linger now{1, 0};
    if (socket) setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    socket.reset();
}

}  // namespace

Proxy::Proxy(std::uint16_t server, int doors)
    : server_(server), doors_(static_cast<std::size_t>(doors)) {
    for (Door& door : doors_) {
        int error = 0;
        door.listener = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
        narrow(door.listener);
        platform::setNonBlocking(door.listener.get(), true);
    }
    thread_ = std::thread([this] { run(); });
}

Proxy::~Proxy() {
    isEnding_ = true;
    thread_.join();
}

std::uint16_t Proxy::port(int door) const {
    return platform::localEndpoint(doors_.at(door).listener.get())->port;
}

void Proxy::limit(int door, Way way, Limit limit) {
    const std::lock_guard lock(mutex_);
    Door& at = doors_.at(door);
    (way == Way::Up ? at.up : at.down) = limit;
}

void Proxy::end(int door, End how) {
    const std::lock_guard lock(mutex_);
    for (Pair& pair : doors_.at(door).pairs) end(pair, how);
}

void Proxy::cut(int door) {
    const std::lock_guard lock(mutex_);
    doors_.at(door).isCut = true;
}

std::size_t Proxy::connections(int door) {
    const std::lock_guard lock(mutex_);
    return doors_.at(door).pairs.size();
}

void Proxy::endNext(int door, std::size_t bytes) {
    const std::lock_guard lock(mutex_);
    doors_.at(door).endNext = bytes;
}

void Proxy::heal() {
    const std::lock_guard lock(mutex_);
    for (Door& door : doors_) {
        door.up = door.down = Limit{};
        door.isCut = false;
        door.endNext.reset();
        for (Pair& pair : door.pairs) pair.left.reset();
    }
}

void Proxy::run() {
    while (!isEnding_) {
        awaitWork();
        const std::lock_guard lock(mutex_);
        for (Door& door : doors_) serve(door);
    }
}

void Proxy::awaitWork() {
    std::vector<pollfd> watched;
    {
        const std::lock_guard lock(mutex_);
        const auto watch = [&](const platform::Socket& socket, bool reads, bool writes) {
            const int events = (reads ? POLLIN : 0) | (writes ? POLLOUT : 0);
            if (events != 0) watched.push_back({socket.get(), static_cast<short>(events), 0});
        };
        const auto isFree = [](const Flow& flow, const Limit& limit) {
            return limit.piece > 0 && Clock::now() >= flow.next;
        };
        const auto reads = [](const Flow& flow) { return flow.held.empty() && !flow.isEnded; };
        for (const Door& door : doors_) {
            watch(door.listener, true, false);
            for (const Pair& pair : door.pairs) {
                const bool up = isFree(pair.up, door.up) && pair.server;
                const bool down = isFree(pair.down, door.down) && pair.server;
                watch(pair.client, up && reads(pair.up), down && !pair.down.held.empty());
                watch(pair.server, down && reads(pair.down), up && !pair.up.held.empty());
            }
        }
    }
    ::poll(watched.data(), watched.size(), kLookMs);
}

void Proxy::serve(Door& door) {
    accept(door);
    for (Pair& pair : door.pairs) {
        if (door.isCut) end(pair, End::Fin);
        if (pair.isOver) continue;
        if (!pair.server) connect(pair);
        if (!pair.server) continue;
        move(pair.up, pair.client, pair.server, door.up);
        const std::size_t moved = move(pair.down, pair.server, pair.client, door.down);
        if (pair.left && moved >= *pair.left) end(pair, End::Reset);
        if (pair.left) *pair.left -= std::min(moved, *pair.left);
        if (pair.up.isShut && pair.down.isShut) pair.isOver = true;
    }
    std::erase_if(door.pairs, [](const Pair& pair) { return pair.isOver; });
}

void Proxy::accept(Door& door) {
    int error = 0;
    for (auto client = platform::acceptTcp(door.listener.get(), error); client;
         client = platform::acceptTcp(door.listener.get(), error)) {
        platform::setNonBlocking(client.get(), true);
        platform::setNoDelay(client.get(), true);
        Pair& pair = door.pairs.emplace_back();
        pair.client = std::move(client);
        pair.left = std::exchange(door.endNext, std::nullopt);
        if (pair.left == 0U) end(pair, End::Reset);
    }
}

void Proxy::connect(Pair& pair) const {
    int error = 0;
    platform::Socket socket = platform::createTcpSocket(error);
    narrow(socket);
    if (platform::connectSocket(socket.get(), {platform::kLoopbackAddress, server_}) != 0) return;
    platform::setNonBlocking(socket.get(), true);
    platform::setNoDelay(socket.get(), true);
    pair.server = std::move(socket);
}

std::size_t Proxy::someOf(const Limit& limit) {
    return limit.piece < kAtOnce ? 1 + random_() % limit.piece : kAtOnce;
}

// Returns the bytes that it wrote. A failed socket counts as ended at both its ends. What comes for
// an end that was shut is lost: left unread, it would hold up what goes the other way.
std::size_t Proxy::move(Flow& flow, const platform::Socket& from, const platform::Socket& to,
                        const Limit& limit) {
    if (limit.piece == 0 || Clock::now() < flow.next) return 0;
    if (flow.isShut) {
        std::array<std::byte, kAtOnce> lost;
        platform::receiveSome(from.get(), lost);
        return 0;
    }
    if (flow.held.empty() && !flow.isEnded) {
        flow.held.resize(someOf(limit));
        const auto got = platform::receiveSome(from.get(), flow.held);
        flow.held.resize(got.bytes);
        flow.isEnded = got.bytes == 0 && !wouldBlock(got.error);
    }
    const auto piece = std::span(flow.held).first(std::min(flow.held.size(), someOf(limit)));
    const auto sent = platform::sendSome(to.get(), piece);
    flow.held.erase(flow.held.begin(), flow.held.begin() + static_cast<long>(sent.bytes));
    if (sent.error != 0 && !wouldBlock(sent.error)) flow = {{}, true, flow.isShut, {}};
    if (sent.bytes > 0) flow.next = Clock::now() + limit.pause;
    if (flow.isEnded && flow.held.empty() && !std::exchange(flow.isShut, true))
        platform::shutdownSending(to.get());
    return sent.bytes;
}

void Proxy::end(Pair& pair, End how) {
    switch (how) {
        case End::Reset:
            closeWithReset(pair.client);
            closeWithReset(pair.server);
            [[fallthrough]];
        case End::Fin:
            pair.isOver = true;
            return;
        case End::HalfUp:
            pair.up = {{}, true, false, {}};
            return;
        case End::HalfDown:
            pair.down = {{}, true, false, {}};
            return;
    }
}

}  // namespace kvx::test
