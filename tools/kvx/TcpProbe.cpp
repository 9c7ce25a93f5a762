#include "tools/kvx/TcpProbe.h"

#include <algorithm>
#include <span>

#include "platform/UnixSocket.h"

namespace kvx::tool {

namespace error = platform::socket_error;

int TcpProbe::connect(platform::Endpoint peer) {
    int code = 0;
    socket_ = platform::createTcpSocket(code);
    if (!socket_) return code;
    platform::setNonBlocking(socket_.get(), true);
    code = platform::connectSocket(socket_.get(), peer);
    if (code != error::kInProgress && code != error::kWouldBlock) return code;
    return await(platform::kWritable) ? platform::pendingError(socket_.get()) : error::kTimedOut;
}

int TcpProbe::connectUnix(const std::string& path) {
    int code = 0;
    socket_ = platform::createUnixSocket(code);
    if (!socket_) return code;
    platform::setNonBlocking(socket_.get(), true);
    return platform::connectUnix(socket_.get(), path);
}

bool TcpProbe::send(const std::string& bytes) {
    const auto sent = platform::sendSome(socket_.get(), std::as_bytes(std::span(bytes)));
    return sent.bytes == bytes.size();
}

std::string TcpProbe::receive(std::size_t bytes) {
    std::string received(bytes, '\0');
    std::size_t count = 0;
    while (count < bytes && !hasEnded_ && await(platform::kReadable)) {
        const auto rest = std::as_writable_bytes(std::span(received)).subspan(count);
        const auto got = platform::receiveSome(socket_.get(), rest);
        hasEnded_ = got.bytes == 0 && got.error != error::kWouldBlock;
        count += got.bytes;
    }
    received.resize(count);
    return received;
}

bool TcpProbe::await(unsigned interest) const {
    for (;;) {
        const auto left = endsAt_ - platform::monotonicMs();
        const auto result = platform::waitSocket(socket_.get(), interest,
                                                 std::max<platform::Milliseconds>(left, 0));
        if (result.ready != 0) return true;
        if (result.error != error::kInterrupted || left <= 0) return false;
    }
}

}  // namespace kvx::tool
