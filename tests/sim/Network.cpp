// Sockets as TCP has them: closing with unread input resets the peer, whose unread input may be
// lost; a write to a closed peer succeeds once; what was sent before a close arrives.

#include "tests/sim/Network.h"

#include <algorithm>

#include "tests/sim/World.h"

namespace kvx::sim {

namespace error = platform::socket_error;

SocketHandle Network::open(std::function<bool()> rings) {
    const Harness harness;
    auto place = std::find(sockets_.begin(), sockets_.end(), nullptr);
    if (place == sockets_.end()) place = sockets_.emplace(sockets_.end());
    *place = std::make_unique<Socket>();
    (*place)->rings = std::move(rings);
    return kFirstHandle + static_cast<SocketHandle>(place - sockets_.begin());
}

bool Network::isOpen(SocketHandle handle) const {
    const auto index = static_cast<std::size_t>(handle - kFirstHandle);
    return handle >= kFirstHandle && index < sockets_.size() && sockets_[index];
}

std::size_t Network::openSockets() const {
    return sockets_.size() -
           static_cast<std::size_t>(std::count(sockets_.begin(), sockets_.end(), nullptr));
}

Network::Socket& Network::at(SocketHandle handle) const {
    if (!isOpen(handle)) world->fail("a socket is used that is not open");
    return *sockets_[static_cast<std::size_t>(handle - kFirstHandle)];
}

void Network::close(SocketHandle handle) {
    const Harness harness;
    Socket& socket = at(handle);
    if (socket.link) {
        Pipe& in = socket.in();
        Pipe& out = socket.out();
        if (!in.bytes.empty()) reset(*socket.link);
        in.readerGone = true;
        out.ended = true;
        if (socket.isDaemons) world->ledger.left(socket.link->number);
    }
    sockets_[static_cast<std::size_t>(handle - kFirstHandle)].reset();
}

int Network::connect(SocketHandle handle, unsigned client) {
    const Harness harness;
    Socket& socket = at(handle);
    const bool atOnce = world->random.oneIn(2);
    if (!listening_ || refusedUntil_ > world->now) {
        socket.error = error::kRefused;
        return atOnce ? takeError(handle) : error::kInProgress;
    }
    socket.link = std::make_shared<Link>();
    Link& link = *socket.link;
    link.number = static_cast<unsigned>(links_.size());
    link.client = client;
    link.isOld = oldClients.contains(client);
    if (link.isOld) world->ledger.speaksV3(link.number);
    link.from = {0x0A000001U + client, static_cast<std::uint16_t>(kFirstPort + link.number)};
    link.up.capacity = link.down.capacity = capacity;
    links_.push_back(socket.link);
    backlog_.push_back(socket.link);
    return atOnce ? 0 : error::kInProgress;
}

int Network::takeError(SocketHandle handle) {
    return std::exchange(at(handle).error, 0);
}

void Network::listen(bool on) {
    listening_ = on;
    if (on) return;
    for (const auto& link : backlog_) reset(*link);
    backlog_.clear();
}

bool Network::hasBacklog() const {
    if (backlog_.empty()) return false;
    const Link& next = *backlog_.front();
    bool mayComeBack = true;
    eachLink([&](const Link& old) {
        const bool isLost = old.client == next.client && old.number < next.number && old.up.reset;
        const bool mayFollow = daemonIsBehind || !old.up.bytes.empty();
        if (isLost && mayFollow && !old.up.readerGone) mayComeBack = false;
    });
    return mayComeBack;
}

SocketHandle Network::accept() {
    const SocketHandle handle = open();
    at(handle).link = std::move(backlog_.front());
    at(handle).isDaemons = true;
    backlog_.pop_front();
    return handle;
}

IoResult Network::send(SocketHandle handle, const void* bytes, std::size_t size) {
    const Harness harness;
    const Socket& socket = at(handle);
    if (!socket.link) return {0, error::kNotConnected};
    Pipe& out = socket.out();
    if (out.reset || out.ended) return {0, error::kConnectionReset};
    if (!writable(handle) || world->random.oneIn(32)) return {0, error::kWouldBlock};
    std::size_t moved = std::min(size, out.capacity - out.bytes.size());
    if (moved > 1 && world->random.oneIn(3)) moved = 1 + world->random(moved);
    const auto* first = static_cast<const char*>(bytes);
    if (out.readerGone) {
        reset(*socket.link);
    } else {
        out.bytes.append(first, moved);
    }
    moved_ += moved;
    if (socket.isDaemons) world->ledger.daemonWrote(socket.link->number, {first, moved});
    return {moved, 0};
}

IoResult Network::receive(SocketHandle handle, void* buffer, std::size_t size) {
    const Harness harness;
    const Socket& socket = at(handle);
    if (!socket.link) return {0, error::kNotConnected};
    Pipe& in = socket.in();
    if (!readable(handle) || world->random.oneIn(32)) return {0, error::kWouldBlock};
    if (in.bytes.empty()) return {0, in.reset ? error::kConnectionReset : 0};
    std::size_t moved = std::min(size, in.bytes.size());
    if (moved > 1 && world->random.oneIn(3)) moved = 1 + world->random(moved);
    std::copy_n(in.bytes.data(), moved, static_cast<char*>(buffer));
    in.bytes.erase(0, moved);
    if (socket.link->isOld && !passesVersion(socket, {static_cast<char*>(buffer), moved})) {
        reset(*socket.link);
        return {0, error::kConnectionReset};
    }
    in.taken += moved;
    moved_ += moved;
    if (socket.isDaemons)
        world->ledger.daemonRead(socket.link->number, {static_cast<char*>(buffer), moved});
    return {moved, 0};
}

// The first message either way has the version in its second word: an old daemon offers 3, and
// closes when 4 is the answer.
bool Network::passesVersion(const Socket& socket, std::span<char> piece) {
    constexpr std::uint64_t kPlace = 7;
    const std::uint64_t begin = socket.in().taken;
    if (begin > kPlace || begin + piece.size() <= kPlace) return true;
    char& version = piece[kPlace - begin];
    if (!socket.isDaemons) version = 3;
    return version == 3;
}

void Network::endSending(SocketHandle handle) {
    if (at(handle).link) at(handle).out().ended = true;
}

bool Network::readable(SocketHandle handle) const {
    const Socket& socket = at(handle);
    if (socket.rings) return socket.rings();
    if (!socket.link) return socket.error != 0;
    const Pipe& in = socket.in();
    return in.stalledUntil <= world->now && (!in.bytes.empty() || in.ended || in.reset);
}

bool Network::writable(SocketHandle handle) const {
    const Socket& socket = at(handle);
    if (!socket.link) return socket.error != 0;
    const Pipe& out = socket.out();
    return out.reset || out.readerGone ||
           (out.stalledUntil <= world->now && out.bytes.size() < out.capacity);
}

const Link* Network::linkOf(SocketHandle handle) const {
    return at(handle).link.get();
}

void Network::reset(Link& link) {
    for (Pipe* pipe : {&link.up, &link.down}) {
        pipe->reset = true;
        if (world->random.oneIn(2)) pipe->bytes.clear();
    }
}

template <class Visit>
void Network::eachLink(Visit visit) const {
    for (const auto& weak : links_)
        if (const auto link = weak.lock()) visit(*link);
}

void Network::cut(unsigned client) {
    eachLink([=](Link& link) {
        if (link.client == client) reset(link);
    });
}

void Network::stall(unsigned client, bool up, Milliseconds duration) {
    eachLink([=](Link& link) {
        if (link.client == client) (up ? link.up : link.down).stalledUntil = world->now + duration;
    });
}

void Network::refuse(Milliseconds duration) {
    refusedUntil_ = world->now + duration;
}

void Network::heal() {
    refusedUntil_ = 0;
    eachLink([](Link& link) { link.up.stalledUntil = link.down.stalledUntil = 0; });
}

Milliseconds Network::nextChange(Milliseconds now) const {
    Milliseconds next = 0;
    const auto consider = [&](Milliseconds at) {
        if (at > now && (next == 0 || at < next)) next = at;
    };
    eachLink([&](const Link& link) {
        consider(link.up.stalledUntil);
        consider(link.down.stalledUntil);
    });
    return next;
}

}  // namespace kvx::sim
