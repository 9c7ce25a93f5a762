#pragma once

#include <uv.h>

#include <optional>
#include <string>

#include "platform/Descriptor.h"
#include "platform/Socket.h"
#include "platform/UnixSocket.h"

namespace kvx::rvd {

/// A handle of libuv for a socket of either kind, TCP or unix, connected or listening. Whoever owns
/// one closes its `handle`, and keeps it until libuv has done so. Loop thread only.
class StreamSocket {
  public:
    enum class Kind : std::uint8_t { Tcp, Unix };

    /// Makes it a handle of `loop`, without a socket yet. `owner` is found in the handle's data.
    void begin(uv_loop_t& loop, Kind kind, void* owner);
    /// Begins as what `listener` has, and takes its next connection.
    [[nodiscard]] bool accept(uv_loop_t& loop, StreamSocket& listener, void* owner);

    /// Has begun; gives it a socket of its kind. False when that is none.
    [[nodiscard]] bool adopt(platform::Descriptor socket);

    [[nodiscard]] Kind kind() const {
        return any_.handle.type == UV_NAMED_PIPE ? Kind::Unix : Kind::Tcp;
    }
    [[nodiscard]] uv_handle_t* handle() { return &any_.handle; }
    [[nodiscard]] uv_stream_t* stream() { return &any_.stream; }
    [[nodiscard]] uv_tcp_t* tcp() { return &any_.tcp; }
    [[nodiscard]] uv_pipe_t* unixSocket() { return &any_.pipe; }
    [[nodiscard]] int descriptor() const;

    /// The two ends of a TCP connection; zeros for another socket and a connection that is gone.
    [[nodiscard]] platform::Endpoint peerEndpoint() const { return endpointBy(uv_tcp_getpeername); }
    [[nodiscard]] platform::Endpoint ownEndpoint() const { return endpointBy(uv_tcp_getsockname); }
    /// The process at the other end of a unix socket, as the system knows it; nothing for TCP.
    [[nodiscard]] std::optional<platform::PeerIdentity> peerIdentity() const;
    /// "a.b.c.d:port" or "unix pid N uid N".
    [[nodiscard]] std::string peerName() const;

  private:
    using NameCall = int (*)(const uv_tcp_t*, sockaddr*, int*);
    [[nodiscard]] platform::Endpoint endpointBy(NameCall call) const;

    union Any {
        uv_handle_t handle;
        uv_stream_t stream;
        uv_tcp_t tcp;
        uv_pipe_t pipe;
    };
    Any any_{};
};

}  // namespace kvx::rvd
