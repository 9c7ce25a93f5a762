#include "rvd/StreamSocket.h"

namespace kvx::rvd {

void StreamSocket::begin(uv_loop_t& loop, Kind kind, void* owner) {
    kind == Kind::Unix ? uv_pipe_init(&loop, &any_.pipe, 0) : uv_tcp_init(&loop, &any_.tcp);
    any_.handle.data = owner;
}

bool StreamSocket::accept(uv_loop_t& loop, StreamSocket& listener, void* owner) {
    begin(loop, listener.kind(), owner);
    if (uv_accept(listener.stream(), stream()) != 0) return false;
    if (kind() == Kind::Tcp) uv_tcp_nodelay(tcp(), 1);
    return true;
}

bool StreamSocket::adopt(platform::Descriptor socket) {
    const int status = kind() == Kind::Unix ? uv_pipe_open(unixSocket(), socket.get())
                                            : uv_tcp_open(tcp(), socket.get());
    if (status != 0) return false;
    (void)socket.release();
    return true;
}

int StreamSocket::descriptor() const {
    int descriptor = platform::kNoSocket;
    uv_fileno(&any_.handle, &descriptor);
    return descriptor;
}

platform::Endpoint StreamSocket::endpointBy(NameCall call) const {
    if (kind() != Kind::Tcp) return {};
    sockaddr_in name{};
    int length = sizeof name;
    call(&any_.tcp, reinterpret_cast<sockaddr*>(&name), &length);
    return {ntohl(name.sin_addr.s_addr), ntohs(name.sin_port)};
}

std::optional<platform::PeerIdentity> StreamSocket::peerIdentity() const {
    return kind() == Kind::Unix ? platform::peerIdentity(descriptor()) : std::nullopt;
}

std::string StreamSocket::peerName() const {
    if (const auto process = peerIdentity()) {
        return "unix pid " + std::to_string(process->pid) + " uid " + std::to_string(process->uid);
    }
    const platform::Endpoint peer = peerEndpoint();
    return platform::dottedAddress(peer.address) + ':' + std::to_string(peer.port);
}

}  // namespace kvx::rvd
