// The second implementation of platform/Socket.h, Poll.h, Clock.h and of the part of Process.h that
// the client and the daemon use: the same declarations, over the virtual world.

#include <sys/eventfd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Poll.h"
#include "platform/Process.h"
#include "platform/SignalDescriptor.h"
#include "tests/sim/World.h"

namespace kvx::platform {

using sim::Harness;
using sim::world;

namespace {

constexpr std::int64_t kEpoch = 1'700'000'000;  // seconds: when the world begins
constexpr std::uint32_t kDaemonHost = 0x0A000001;
constexpr std::size_t kDescriptors = 1'000;

unsigned readinessOf(SocketHandle socket, unsigned interest) {
    unsigned ready = 0;
    if (world->network.readable(socket)) ready |= kReadable;
    if ((interest & kWritable) != 0 && world->network.writable(socket)) ready |= kWritable;
    return ready & interest;
}

}  // namespace

Milliseconds monotonicMs() noexcept {
    return world->now;
}
std::int64_t wallMilliseconds() noexcept {
    return kEpoch * 1000 + world->now;
}
std::int64_t wallSeconds() noexcept {
    return wallMilliseconds() / 1000;
}
void sleepMs(Milliseconds duration) noexcept {
    if (duration > 0) world->wait([] { return false; }, duration);
}

int socketErrorFromErrno(int systemError) noexcept {
    return systemError;
}
void Socket::reset(SocketHandle handle) noexcept {
    const SocketHandle old = std::exchange(handle_, handle);
    if (old != kNoSocket && old != handle) closeSocket(old);
}
Socket createTcpSocket(int& error) noexcept {
    error = 0;
    return Socket(world->network.open());
}
void closeSocket(SocketHandle socket) noexcept {
    world->network.close(socket);
}
bool isSocket(SocketHandle socket) noexcept {
    return world->network.isOpen(socket);
}
int setReuseAddress(SocketHandle /*socket*/, bool /*on*/) noexcept {
    return 0;
}
int setNoDelay(SocketHandle /*socket*/, bool /*on*/) noexcept {
    return 0;
}
int setNonBlocking(SocketHandle /*socket*/, bool /*on*/) noexcept {
    return 0;
}
int connectSocket(SocketHandle socket, Endpoint /*peer*/) noexcept {
    return world->network.connect(socket, world->running().number);
}
int pendingError(SocketHandle socket) noexcept {
    return world->network.takeError(socket);
}
IoResult sendSome(SocketHandle socket, std::span<const std::byte> bytes) noexcept {
    return world->network.send(socket, bytes.data(), bytes.size());
}
IoResult sendPieces(SocketHandle socket,
                    std::span<const std::span<const std::byte>> pieces) noexcept {
    IoResult sent;
    for (const auto piece : pieces) {
        const IoResult next = sendSome(socket, piece);
        if (next.error != 0) return sent.bytes != 0 ? sent : next;
        sent.bytes += next.bytes;
        if (next.bytes < piece.size()) break;
    }
    return sent;
}
IoResult receiveSome(SocketHandle socket, std::span<std::byte> buffer) noexcept {
    return world->network.receive(socket, buffer.data(), buffer.size());
}

WaitResult waitSocket(SocketHandle socket, unsigned interest, Milliseconds timeout) noexcept {
    const Harness harness;
    if (world->random.oneIn(64)) return {0, socket_error::kInterrupted};
    world->wait([=] { return readinessOf(socket, interest) != 0; }, timeout);
    return {readinessOf(socket, interest), 0};
}

std::optional<std::uint32_t> resolveHost(const std::string& /*name*/) {
    return kDaemonHost;
}
std::optional<std::uint32_t> localHostAddress() {
    return kDaemonHost;
}
std::string dottedAddress(std::uint32_t address) {
    return std::to_string(address);
}

std::string userName() {
    return "user";
}
unsigned long processId() noexcept {
    return 0x1000UL + world->running().number;
}
std::optional<std::string> programName(unsigned long /*pid*/) {
    return std::nullopt;
}
std::string programDirectory() {
    return {};
}
std::optional<std::string> findOnPath(const std::string& /*name*/) {
    return std::nullopt;
}
Started startDaemon(const Program& /*program*/, const std::string& /*logName*/) {
    return {};
}
std::string stateDirectory() {
    return {};
}
// Nobody replaces the daemon.
Started startChild(const Program& /*program*/) {
    return {};
}
bool killAndReap(unsigned long /*pid*/, Milliseconds /*grace*/) {
    return false;
}
bool sendSignal(unsigned long /*pid*/, int /*signal*/) noexcept {
    return false;
}
void exitNow(int status) {
    std::_Exit(status);
}
std::size_t raiseDescriptorLimit() {
    return kDescriptors;
}
std::int64_t threadCpuNanoseconds() noexcept {
    return static_cast<std::int64_t>(world->processorTime());
}

// A new process has no signals yet.
SignalDescriptor::SignalDescriptor(std::span<const int> /*signals*/) noexcept
    : descriptor_(::eventfd(0, EFD_CLOEXEC)) {
    world->raised = 0;
}
int SignalDescriptor::next() const noexcept {
    return std::exchange(world->raised, 0);
}

WakeUp::WakeUp() noexcept : descriptor_(0) {}
WakeUp::~WakeUp() = default;
void WakeUp::notify() const noexcept {}  // a program of this world has one thread and no signals
void WakeUp::drain() const noexcept {}

struct PollSet::Entries {
    struct Entry {
        SocketHandle socket;
        unsigned interest;
        unsigned ready;
    };
    std::vector<Entry> sockets;  // in ascending order

    std::vector<Entry>::iterator placeOf(SocketHandle socket) {
        return std::ranges::lower_bound(sockets, socket, {}, &Entry::socket);
    }
};

PollSet::PollSet(WakeUp* wakeUp) : entries_(std::make_unique<Entries>()), wakeUp_(wakeUp) {}
PollSet::~PollSet() = default;

bool PollSet::add(SocketHandle socket, unsigned interest) noexcept {
    const Harness harness;
    auto place = entries_->placeOf(socket);
    if (place == entries_->sockets.end() || place->socket != socket)
        place = entries_->sockets.insert(place, {socket, 0, 0});
    place->interest |= interest;
    return true;
}

void PollSet::remove(SocketHandle socket, unsigned interest) noexcept {
    const Harness harness;
    const auto place = entries_->placeOf(socket);
    if (place == entries_->sockets.end() || place->socket != socket) return;
    place->interest &= ~interest;
    if (place->interest == 0) entries_->sockets.erase(place);
}

std::size_t PollSet::size() const noexcept {
    return entries_->sockets.size();
}

int PollSet::wait(Milliseconds timeout) noexcept {
    const Harness harness;
    auto& sockets = entries_->sockets;
    const auto isReady = [](const Entries::Entry& e) {
        return readinessOf(e.socket, e.interest) != 0;
    };
    world->wait([&] { return std::ranges::any_of(sockets, isReady); }, timeout);
    // Some of what is ready may be found only by the next wait, as with a real system.
    for (Entries::Entry& e : sockets)
        e.ready = world->random.oneIn(4) ? 0 : readinessOf(e.socket, e.interest);
    readyCount_ = static_cast<std::size_t>(
        std::ranges::count_if(sockets, [](const auto& e) { return e.ready != 0; }));
    return 0;
}

PollSet::Slot PollSet::slot(std::size_t i) const noexcept {
    return {entries_->sockets[i].socket, entries_->sockets[i].ready};
}

}  // namespace kvx::platform
