#pragma once

#include <string>

#include "platform/Clock.h"
#include "platform/Socket.h"

namespace kvx::tool {

/// One connection to whatever listens at an address, with one deadline for all that is done on it.
class TcpProbe {
  public:
    explicit TcpProbe(platform::Milliseconds timeout)
        : endsAt_(platform::monotonicMs() + timeout) {}

    /// Returns 0 or a socket error number, `kTimedOut` at the deadline.
    int connect(platform::Endpoint peer);
    /// The same at a unix socket.
    int connectUnix(const std::string& path);
    /// False when not all could be sent. For a few bytes.
    bool send(const std::string& bytes);
    /// Waits for that many bytes; fewer at the deadline or when the peer ends.
    std::string receive(std::size_t bytes);
    /// Whether the peer has closed the connection.
    [[nodiscard]] bool hasEnded() const { return hasEnded_; }

  private:
    [[nodiscard]] bool await(unsigned interest) const;

    const platform::Milliseconds endsAt_;
    platform::Socket socket_;
    bool hasEnded_ = false;
};

}  // namespace kvx::tool
