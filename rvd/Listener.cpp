#include "rvd/Listener.h"

#include <algorithm>
#include <utility>

#include "rvd/State.h"

namespace kvx::rvd {

namespace {

constexpr int kBacklog = 511;  // pending connections

}  // namespace

Listener::Listener(uv_loop_t& loop, ListenAddress address, Arrived arrived)
    : address_(std::move(address)), arrived_(std::move(arrived)) {
    socket_.begin(loop, address_.isUnix() ? StreamSocket::Kind::Unix : StreamSocket::Kind::Tcp,
                  this);
}

std::string Listener::open() {
    if (address_.isUnix()) {
        if (std::string error = bindUnix(); !error.empty()) return error;
    } else if (const int status = bindTcp(); status != 0) {
        return uv_strerror(status);
    }
    return listen();
}

std::string Listener::listen() {
    const int status = uv_listen(socket_.stream(), kBacklog, [](uv_stream_t* stream, int result) {
        auto& self = *static_cast<Listener*>(stream->data);
        self.arrived_(self, result);
    });
    if (status != 0) return uv_strerror(status);
    if (!address_.isUnix()) address_.endpoint = socket_.ownEndpoint();
    return {};
}

void Listener::adopt(platform::Descriptor socket) {
    if (!socket_.adopt(std::move(socket))) throw StateError("a listening socket is of no use");
    if (address_.isUnix() && !address_.isPassed) file_ = platform::SocketFile(address_.path);
}

int Listener::bindTcp() {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(address_.endpoint.address);
    local.sin_port = htons(address_.endpoint.port);
    return uv_tcp_bind(socket_.tcp(), reinterpret_cast<const sockaddr*>(&local), 0);
}

std::string Listener::bindUnix() {
    std::string error;
    platform::Socket bound = platform::listenUnix(address_.path, kBacklog, error);
    if (!bound) return error;
    file_ = platform::SocketFile(address_.path);
    const int status = uv_pipe_open(socket_.unixSocket(), bound.get());
    if (status != 0) return uv_strerror(status);
    (void)bound.release();
    return {};
}

std::string Listener::text() const {
    if (address_.isUnix()) return "unix:" + address_.path;
    return "tcp:" + platform::dottedAddress(address_.endpoint.address) + ':' +
           std::to_string(address_.endpoint.port);
}

void Listener::close() {
    file_.remove();
    if (uv_is_closing(socket_.handle()) == 0) uv_close(socket_.handle(), nullptr);
}

std::vector<BoundAddress> placesToListen(const std::vector<ListenAddress>& addresses,
                                         std::vector<platform::PassedSocket> passed) {
    std::vector<BoundAddress> places;
    places.reserve(addresses.size() + passed.size());
    for (const ListenAddress& address : addresses) places.push_back({address, {}});
    for (platform::PassedSocket& one : passed) {
        const auto find = [&](bool isSame) {
            return std::ranges::find_if(places, [&](const BoundAddress& place) {
                const ListenAddress& address = place.address;
                if (address.isPassed || address.isUnix() != !one.path.empty()) return false;
                return !isSame || (address.isUnix() ? address.path == one.path
                                                    : address.endpoint == one.endpoint);
            });
        };
        auto place = find(true);
        if (place == places.end()) place = find(false);
        if (place == places.end()) place = places.insert(place, BoundAddress());
        *place = {{one.endpoint, std::move(one.path), true}, std::move(one.socket)};
    }
    return places;
}

}  // namespace kvx::rvd
