#pragma once

#include <sys/socket.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/Daemon.h"
#include "tests/support/NatsServer.h"
#include "tests/support/RawClient.h"

namespace kvx::bench {

/// A host: a daemon and its bridge, which is ready.
class Site {
  public:
    Site(const std::string& name, const test::NatsServer& nats)
        : bridge_(KVX_BIN_DIR "/rvbridge",
                  {"-host", name, "-engine", nats.url(), "-daemon", daemon_.text()}) {
        if (bridge_.awaitOutput("rvbridge ready as " + name).empty()) {
            throw std::runtime_error("rvbridge is not ready: " + bridge_.errors());
        }
    }
    [[nodiscard]] const test::Daemon& daemon() const { return daemon_; }
    [[nodiscard]] const test::ChildProcess& bridge() const { return bridge_; }

  private:
    test::Daemon daemon_;
    test::ChildProcess bridge_;
};

inline constexpr std::size_t kPayload = 128;  // bytes of what is counted

/// A session on the raw wire. What does not come within ten seconds is lost.
class Session {
  public:
    explicit Session(std::uint16_t port)
        : client_(test::RawClient::session(port)), buffer_(kReadBuffer) {
        const timeval limit{10, 0};
        setsockopt(client_.socket(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }

    test::RawClient& client() { return client_; }
    void send(wire::Bytes bytes) { client_.send(bytes); }

    /// Reads until `count` messages of `kPayload` bytes or more have come. Returns how many did.
    std::size_t take(std::size_t count) {
        for (std::size_t taken = 0;;) {
            for (auto frame = reader_.next(); frame.kind != wire::FrameKind::None;
                 frame = reader_.next()) {
                const bool isCounted = frame.bytes.size() > kPayload;
                if (isCounted && ++taken == count) return taken;
            }
            const auto got =
                platform::receiveSome(client_.socket(), std::as_writable_bytes(std::span(buffer_)));
            if (got.bytes == 0) return taken;
            reader_.feed({buffer_.data(), got.bytes});
        }
    }

  private:
    static constexpr std::size_t kReadBuffer = 256 * 1024;  // bytes

    test::RawClient client_;
    std::vector<std::uint8_t> buffer_;
    wire::FrameReader reader_;
};

/// Sends on `subject` until `to`, which listens to it, hears something.
inline void awaitWay(Session& from, Session& to, const std::string& subject) {
    do {
        from.client().publish(subject, "");
    } while (platform::waitSocket(to.client().socket(), platform::kReadable, 20).ready == 0);
}

}  // namespace kvx::bench
