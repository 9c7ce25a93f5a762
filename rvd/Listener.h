#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/Descriptor.h"
#include "platform/Supervisor.h"
#include "platform/UnixSocket.h"
#include "rvd/Options.h"
#include "rvd/StreamSocket.h"

namespace kvx::rvd {

/// One address where the daemon accepts connections. Keep it until the loop has run after `close`.
/// Loop thread only.
class Listener {
  public:
    /// libuv calls this for one connection at a time, or for an error, which `status` is then.
    using Arrived = std::function<void(Listener&, int status)>;

    /// `loop` must outlive this object.
    Listener(uv_loop_t& loop, ListenAddress address, Arrived arrived);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Binds and listens. Returns an empty text, or why that is impossible.
    [[nodiscard]] std::string open();
    /// Adopts a socket that is bound already, or throws `StateError`; `listen` comes later. It
    /// removes its file unless that is passed.
    void adopt(platform::Descriptor socket);
    [[nodiscard]] std::string listen();
    /// As in `-listen`, such as "tcp:127.0.0.1:41233" or "unix:/path"; the real port once open.
    [[nodiscard]] std::string text() const;
    [[nodiscard]] const ListenAddress& address() const { return address_; }
    [[nodiscard]] StreamSocket& socket() { return socket_; }
    /// Stops listening, and removes the file of a unix socket. Further calls have no effect.
    void close();

    /// What the connection waits for that has arrived and is not accepted. libuv tells of no other
    /// one meanwhile.
    enum class Wait : std::uint8_t { Nothing, NextTurn, Memory };
    Wait wait = Wait::Nothing;

  private:
    [[nodiscard]] int bindTcp();
    [[nodiscard]] std::string bindUnix();

    ListenAddress address_;
    const Arrived arrived_;
    StreamSocket socket_;
    platform::SocketFile file_;
};

/// An address, and the socket that is bound there; without one it is to be bound.
struct BoundAddress {
    ListenAddress address;
    platform::Descriptor socket;
};

/// Where to listen: each of the passed sockets takes the place of the same address, else of the
/// first one of its kind, else it comes besides.
[[nodiscard]] std::vector<BoundAddress> placesToListen(const std::vector<ListenAddress>& addresses,
                                                       std::vector<platform::PassedSocket> passed);

}  // namespace kvx::rvd
