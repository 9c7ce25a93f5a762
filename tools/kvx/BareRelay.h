#pragma once

#include <cstdint>
#include <thread>

#include "platform/Socket.h"

namespace kvx::tool {

/// The least that a broker could cost on this host: a thread that only sends back what it receives,
/// over TCP on the loopback. One thread at a time.
class BareRelay {
  public:
    BareRelay();
    ~BareRelay();
    BareRelay(const BareRelay&) = delete;
    BareRelay& operator=(const BareRelay&) = delete;

    /// Sends so many bytes and takes them back, at most `kInFlight` at a time. False when there is
    /// no connection.
    [[nodiscard]] bool carry(std::uint64_t bytes);

    /// What the buffers of the sockets hold: neither side ever waits for the other to read.
    static constexpr std::uint64_t kInFlight = 128 * 1024;

  private:
    platform::Socket near_;
    platform::Socket far_;
    std::thread relay_;
};

}  // namespace kvx::tool
