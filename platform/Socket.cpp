// System sockets in the bus's terms: one table of error numbers, close-on-exec descriptors, and
// writes that never raise SIGPIPE. Interrupted sends and receives are repeated here, so callers
// never see that error from them; an interrupted wait is reported, because only the caller knows
// how much time is left.

#include "platform/Socket.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/Waiting.h"

namespace kvx::platform {

namespace {

struct ErrorPair {
    int system;
    int socket;
};

constexpr std::array kErrorTable = {
    ErrorPair{EINTR, socket_error::kInterrupted},
    ErrorPair{EBADF, socket_error::kBadDescriptor},
    ErrorPair{EACCES, socket_error::kAccessDenied},
    ErrorPair{EPERM, socket_error::kAccessDenied},
    ErrorPair{EFAULT, socket_error::kBadAddress},
    ErrorPair{EINVAL, socket_error::kInvalidArgument},
    ErrorPair{EMFILE, socket_error::kTooManyDescriptors},
    ErrorPair{ENFILE, socket_error::kTooManyDescriptors},
    ErrorPair{EWOULDBLOCK, socket_error::kWouldBlock},
    ErrorPair{EINPROGRESS, socket_error::kInProgress},
    ErrorPair{EALREADY, socket_error::kAlready},
    ErrorPair{ENOTSOCK, socket_error::kNotASocket},
    ErrorPair{EDESTADDRREQ, socket_error::kDestinationRequired},
    ErrorPair{EMSGSIZE, socket_error::kMessageTooLong},
    ErrorPair{EOPNOTSUPP, socket_error::kNotSupported},
    ErrorPair{EAFNOSUPPORT, socket_error::kFamilyNotSupported},
    ErrorPair{EADDRINUSE, socket_error::kAddressInUse},
    ErrorPair{EADDRNOTAVAIL, socket_error::kAddressNotAvailable},
    ErrorPair{ENETDOWN, socket_error::kNetworkDown},
    ErrorPair{ENETUNREACH, socket_error::kNetworkUnreachable},
    ErrorPair{ECONNABORTED, socket_error::kConnectionAborted},
    ErrorPair{ECONNRESET, socket_error::kConnectionReset},
    ErrorPair{EPIPE, socket_error::kConnectionReset},
    ErrorPair{ENOBUFS, socket_error::kNoBuffers},
    ErrorPair{EISCONN, socket_error::kAlreadyConnected},
    ErrorPair{ENOTCONN, socket_error::kNotConnected},
    ErrorPair{ESHUTDOWN, socket_error::kShutDown},
    ErrorPair{ETIMEDOUT, socket_error::kTimedOut},
    ErrorPair{ECONNREFUSED, socket_error::kRefused},
    ErrorPair{EHOSTDOWN, socket_error::kHostDown},
    ErrorPair{EHOSTUNREACH, socket_error::kHostUnreachable},
    ErrorPair{ENOMEM, socket_error::kNoMemory},
};

int lastSocketError() noexcept {
    return socketErrorFromErrno(errno);
}

int resultOf(int systemResult) noexcept {
    return systemResult == 0 ? 0 : lastSocketError();
}

int setOption(SocketHandle socket, int level, int name, int value) noexcept {
    return resultOf(::setsockopt(socket, level, name, &value, sizeof value));
}

sockaddr_in systemAddress(Endpoint endpoint) noexcept {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    address.sin_addr.s_addr = htonl(endpoint.address);
    return address;
}

using NameCall = int (*)(int, sockaddr*, socklen_t*);

std::optional<Endpoint> endpointBy(NameCall call, SocketHandle socket) noexcept {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (call(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        address.sin_family != AF_INET) {
        return std::nullopt;
    }
    return Endpoint{ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

bool isOutwardAddress(const ifaddrs& interface) noexcept {
    return interface.ifa_addr != nullptr && interface.ifa_addr->sa_family == AF_INET &&
           (interface.ifa_flags & IFF_UP) != 0 && (interface.ifa_flags & IFF_LOOPBACK) == 0;
}

std::uint32_t addressOf(const sockaddr* address) noexcept {
    sockaddr_in internet{};
    std::memcpy(&internet, address, sizeof internet);
    return ntohl(internet.sin_addr.s_addr);
}

}  // namespace

int socketErrorFromErrno(int systemError) noexcept {
    const auto pair = std::find_if(kErrorTable.begin(), kErrorTable.end(),
                                   [=](const ErrorPair& p) { return p.system == systemError; });
    return pair == kErrorTable.end() ? systemError : pair->socket;
}

void Socket::reset(SocketHandle handle) noexcept {
    const SocketHandle old = std::exchange(handle_, handle);
    if (old != kNoSocket && old != handle) closeSocket(old);
}

Socket createTcpSocket(int& error) noexcept {
    const int handle = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    error = handle < 0 ? lastSocketError() : 0;
    return handle < 0 ? Socket() : Socket(handle);
}

std::pair<Socket, Socket> createSocketPair(int& error) noexcept {
    std::array<int, 2> ends{kNoSocket, kNoSocket};
    const int kind = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
    error = resultOf(::socketpair(AF_UNIX, kind, 0, ends.data()));
    return {Socket(ends[0]), Socket(ends[1])};
}

void closeSocket(SocketHandle socket) noexcept {
    ::close(socket);
}

bool isSocket(SocketHandle socket) noexcept {
    int type = 0;
    socklen_t length = sizeof type;
    return ::getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &length) == 0;
}

int setReuseAddress(SocketHandle socket, bool on) noexcept {
    return setOption(socket, SOL_SOCKET, SO_REUSEADDR, on ? 1 : 0);
}

int setNoDelay(SocketHandle socket, bool on) noexcept {
    return setOption(socket, IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0);
}

int setNonBlocking(SocketHandle socket, bool on) noexcept {
    int value = on ? 1 : 0;
    return resultOf(::ioctl(socket, FIONBIO, &value));
}

int setBufferSizes(SocketHandle socket, int sendBytes, int receiveBytes) noexcept {
    const int error = setOption(socket, SOL_SOCKET, SO_SNDBUF, sendBytes);
    return error != 0 ? error : setOption(socket, SOL_SOCKET, SO_RCVBUF, receiveBytes);
}

int connectSocket(SocketHandle socket, Endpoint peer) noexcept {
    const sockaddr_in address = systemAddress(peer);
    return resultOf(::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
}

int pendingError(SocketHandle socket) noexcept {
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return lastSocketError();
    return error == 0 ? 0 : socketErrorFromErrno(error);
}

IoResult sendSome(SocketHandle socket, std::span<const std::byte> bytes) noexcept {
    for (;;) {
        const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent >= 0) return {static_cast<std::size_t>(sent), 0};
        if (errno != EINTR) return {0, lastSocketError()};
    }
}

IoResult sendPieces(SocketHandle socket,
                    std::span<const std::span<const std::byte>> pieces) noexcept {
    if (pieces.size() == 1) return sendSome(socket, pieces[0]);
    std::array<iovec, kMaxPieces> parts;
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = std::min(pieces.size(), kMaxPieces);
    for (std::size_t i = 0; i < message.msg_iovlen; ++i) {
        parts[i] = {const_cast<std::byte*>(pieces[i].data()), pieces[i].size()};
    }
    for (;;) {
        const ssize_t sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
        if (sent >= 0) return {static_cast<std::size_t>(sent), 0};
        if (errno != EINTR) return {0, lastSocketError()};
    }
}

IoResult receiveSome(SocketHandle socket, std::span<std::byte> buffer) noexcept {
    for (;;) {
        const ssize_t received = ::recv(socket, buffer.data(), buffer.size(), 0);
        if (received >= 0) return {static_cast<std::size_t>(received), 0};
        if (errno != EINTR) return {0, lastSocketError()};
    }
}

int shutdownSending(SocketHandle socket) noexcept {
    return resultOf(::shutdown(socket, SHUT_WR));
}

WaitResult waitSocket(SocketHandle socket, unsigned interest, Milliseconds timeout) noexcept {
    pollfd entry{socket, detail::pollEventsOf(interest), 0};
    const int found = detail::pollFor({&entry, 1}, timeout);
    if (found < 0) return {0, lastSocketError()};
    if ((entry.revents & POLLNVAL) != 0) return {0, socket_error::kNotASocket};
    return {detail::readinessOf(entry.revents, interest), 0};
}

Socket listenTcp(Endpoint local, int& error, int backlog) noexcept {
    Socket listener = createTcpSocket(error);
    if (!listener) return listener;
    const sockaddr_in address = systemAddress(local);
    error = setReuseAddress(listener.get(), true);
    if (error == 0) {
        error = resultOf(
            ::bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    if (error == 0) error = resultOf(::listen(listener.get(), backlog));
    return error == 0 ? std::move(listener) : Socket();
}

Socket acceptTcp(SocketHandle listener, int& error) noexcept {
    for (;;) {
        const int handle = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (handle >= 0) {
            error = 0;
            return Socket(handle);
        }
        error = lastSocketError();
        if (error != socket_error::kInterrupted) return {};
    }
}

std::optional<Endpoint> localEndpoint(SocketHandle socket) noexcept {
    return endpointBy(::getsockname, socket);
}

std::optional<Endpoint> peerEndpoint(SocketHandle socket) noexcept {
    return endpointBy(::getpeername, socket);
}

std::optional<std::uint32_t> resolveHost(const std::string& name) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* raw = nullptr;
    if (name.empty() || ::getaddrinfo(name.c_str(), nullptr, &hints, &raw) != 0) return {};
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> found(raw, ::freeaddrinfo);
    return addressOf(found->ai_addr);
}

std::optional<std::uint32_t> parseDottedAddress(const std::string& text) {
    in_addr address{};
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
    return ntohl(address.s_addr);
}

std::string dottedAddress(std::uint32_t address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    const in_addr network{htonl(address)};
    ::inet_ntop(AF_INET, &network, text.data(), text.size());
    return text.data();
}

std::optional<std::string> localHostName() {
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0) return std::nullopt;
    return name.data();
}

std::optional<std::uint32_t> localHostAddress() {
    ifaddrs* raw = nullptr;
    if (::getifaddrs(&raw) != 0) return std::nullopt;
    const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> all(raw, ::freeifaddrs);
    for (const ifaddrs* interface = all.get(); interface != nullptr;
         interface = interface->ifa_next) {
        if (isOutwardAddress(*interface)) return addressOf(interface->ifa_addr);
    }
    return std::nullopt;
}

}  // namespace kvx::platform
