// Exact reads and writes with a deadline, for greetings and parameter blocks. The socket may be
// blocking or not, so nothing is read before a wait has found the socket readable; a write is tried
// first and waits only when the socket takes nothing. Interruptions and spurious wake-ups repeat
// the step under the same deadline.

#include "rv/link/LinkIo.h"

#include <algorithm>

namespace kvx::link {

namespace error = platform::socket_error;

namespace {

bool isTransient(int code) {
    return code == error::kInterrupted || code == error::kWouldBlock || code == error::kInProgress;
}

}  // namespace

Deadline Deadline::in(platform::Milliseconds timeout) {
    Deadline deadline;
    if (timeout >= 0) deadline.at_ = platform::monotonicMs() + timeout;
    return deadline;
}

platform::Milliseconds Deadline::left() const {
    if (at_ == platform::kForever) return platform::kForever;
    return std::max<platform::Milliseconds>(0, at_ - platform::monotonicMs());
}

bool waitUntil(platform::SocketHandle socket, unsigned interest,
               const Deadline& deadline) noexcept {
    for (;;) {
        const platform::WaitResult found = platform::waitSocket(socket, interest, deadline.left());
        if (found.ready != 0) return true;
        if (found.error != 0 && found.error != error::kInterrupted) return false;
        if (deadline.passed()) return false;
    }
}

bool readExactly(platform::SocketHandle socket, std::span<std::uint8_t> out,
                 const Deadline& deadline) noexcept {
    while (!out.empty()) {
        if (!waitUntil(socket, platform::kReadable, deadline)) return false;
        const platform::IoResult got = platform::receiveSome(socket, std::as_writable_bytes(out));
        if (got.error != 0) {
            if (!isTransient(got.error)) return false;
            continue;
        }
        if (got.bytes == 0) return false;
        out = out.subspan(got.bytes);
    }
    return true;
}

bool writeExactly(platform::SocketHandle socket, wire::Bytes bytes,
                  const Deadline& deadline) noexcept {
    while (!bytes.empty()) {
        const platform::IoResult sent = platform::sendSome(socket, std::as_bytes(bytes));
        bytes = bytes.subspan(sent.bytes);
        if (sent.error == 0) continue;
        if (!isTransient(sent.error)) return false;
        if (!waitUntil(socket, platform::kWritable, deadline)) return false;
    }
    return true;
}

}  // namespace kvx::link
