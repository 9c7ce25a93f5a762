#include "tools/kvx/BareRelay.h"

#include <algorithm>
#include <cstddef>
#include <span>
#include <vector>

namespace kvx::tool {
namespace {

using platform::Socket;

constexpr std::size_t kBlock = 64 * 1024;  // bytes of one send or receive

bool sendAll(const Socket& socket, std::span<const std::byte> bytes) {
    while (!bytes.empty()) {
        const platform::IoResult sent = platform::sendSome(socket.get(), bytes);
        if (sent.error != 0) return false;
        bytes = bytes.subspan(sent.bytes);
    }
    return true;
}

void relay(const Socket& socket) {
    std::vector<std::byte> buffer(kBlock);
    for (;;) {
        const platform::IoResult got = platform::receiveSome(socket.get(), buffer);
        if (got.error != 0 || got.bytes == 0) return;
        if (!sendAll(socket, std::span(buffer).first(got.bytes))) return;
    }
}

void prepare(const Socket& socket) {
    constexpr int kBuffer = 2 * BareRelay::kInFlight;
    platform::setNoDelay(socket.get(), true);
    platform::setBufferSizes(socket.get(), kBuffer, kBuffer);
}

}  // namespace

BareRelay::BareRelay() {
    int error = 0;
    const Socket listener = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
    const auto address = listener ? platform::localEndpoint(listener.get()) : std::nullopt;
    near_ = platform::createTcpSocket(error);
    if (!address || !near_ || platform::connectSocket(near_.get(), *address) != 0) return;
    far_ = platform::acceptTcp(listener.get(), error);
    if (!far_) return;
    prepare(near_);
    prepare(far_);
    relay_ = std::thread([this] { relay(far_); });
}

BareRelay::~BareRelay() {
    near_.reset();
    if (relay_.joinable()) relay_.join();
}

bool BareRelay::carry(std::uint64_t bytes) {
    if (!relay_.joinable()) return false;
    std::vector<std::byte> block(static_cast<std::size_t>(std::min<std::uint64_t>(kBlock, bytes)));
    std::uint64_t sent = 0;
    for (std::uint64_t back = 0; back < bytes;) {
        while (sent < bytes && sent - back + block.size() <= kInFlight) {
            const auto some = std::min<std::uint64_t>(block.size(), bytes - sent);
            if (!sendAll(near_, std::span(block).first(static_cast<std::size_t>(some)))) {
                return false;
            }
            sent += some;
        }
        const platform::IoResult got = platform::receiveSome(near_.get(), block);
        if (got.error != 0 || got.bytes == 0) return false;
        back += got.bytes;
    }
    return true;
}

}  // namespace kvx::tool
