#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "platform/Clock.h"
#include "platform/Export.h"

/// TCP sockets in the terms of the bus: results are socket error numbers (0 is success), translated
/// from the system's in one table; every descriptor is close-on-exec; writing to a closed peer
/// returns an error number and raises no signal. Addresses and ports are in host byte order. Any
/// thread, one thread at a time for one socket.
namespace kvx::platform {

/// A descriptor that is not owned, or `kNoSocket`.
using SocketHandle = int;
inline constexpr SocketHandle kNoSocket = -1;

/// The socket error numbers. A system error without an entry here keeps its system number
/// (`kNoMemory` among them), which is always below 10000.
namespace socket_error {
inline constexpr int kNone = 0;
inline constexpr int kNoMemory = 12;
inline constexpr int kInterrupted = 10004;
inline constexpr int kBadDescriptor = 10009;
inline constexpr int kAccessDenied = 10013;
inline constexpr int kBadAddress = 10014;
inline constexpr int kInvalidArgument = 10022;
inline constexpr int kTooManyDescriptors = 10024;
inline constexpr int kWouldBlock = 10035;
inline constexpr int kInProgress = 10036;
inline constexpr int kAlready = 10037;
inline constexpr int kNotASocket = 10038;
inline constexpr int kDestinationRequired = 10039;
inline constexpr int kMessageTooLong = 10040;
inline constexpr int kNotSupported = 10045;
inline constexpr int kFamilyNotSupported = 10047;
inline constexpr int kAddressInUse = 10048;
inline constexpr int kAddressNotAvailable = 10049;
inline constexpr int kNetworkDown = 10050;
inline constexpr int kNetworkUnreachable = 10051;
inline constexpr int kConnectionAborted = 10053;
inline constexpr int kConnectionReset = 10054;
inline constexpr int kNoBuffers = 10055;
inline constexpr int kAlreadyConnected = 10056;
inline constexpr int kNotConnected = 10057;
inline constexpr int kShutDown = 10058;
inline constexpr int kTimedOut = 10060;
inline constexpr int kRefused = 10061;
inline constexpr int kHostDown = 10064;
inline constexpr int kHostUnreachable = 10065;
}  // namespace socket_error

/// The socket error number of a system error number.
[[nodiscard]] KVX_API int socketErrorFromErrno(int systemError) noexcept;

inline constexpr std::uint32_t kLoopbackAddress = 0x7F000001;

/// An IPv4 address and a TCP port, both in host byte order.
struct Endpoint {
    std::uint32_t address = 0;
    std::uint16_t port = 0;

    friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

/// Owns a socket and closes it. Move-only.
class KVX_API Socket {
  public:
    Socket() noexcept = default;
    explicit Socket(SocketHandle handle) noexcept : handle_(handle) {}
    Socket(Socket&& other) noexcept : handle_(other.release()) {}
    Socket& operator=(Socket&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() { reset(); }

    [[nodiscard]] SocketHandle get() const noexcept { return handle_; }
    [[nodiscard]] explicit operator bool() const noexcept { return handle_ != kNoSocket; }
    /// Releases the descriptor to the caller, who closes it with `closeSocket`.
    [[nodiscard]] SocketHandle release() noexcept { return std::exchange(handle_, kNoSocket); }
    /// Closes the owned socket and takes ownership of `handle`.
    void reset(SocketHandle handle = kNoSocket) noexcept;

  private:
    SocketHandle handle_ = kNoSocket;
};

/// Returns a new blocking TCP socket; on failure returns an empty socket and sets `error` to the
/// reason.
[[nodiscard]] KVX_API Socket createTcpSocket(int& error) noexcept;

/// Two connected non-blocking sockets of this process; writing to one makes the other readable. On
/// failure returns two empty sockets and sets `error`.
[[nodiscard]] KVX_API std::pair<Socket, Socket> createSocketPair(int& error) noexcept;
KVX_API void closeSocket(SocketHandle socket) noexcept;

/// True when `socket` is an open descriptor of a socket (not of a file or a pipe).
[[nodiscard]] KVX_API bool isSocket(SocketHandle socket) noexcept;

KVX_API int setReuseAddress(SocketHandle socket, bool on) noexcept;
KVX_API int setNoDelay(SocketHandle socket, bool on) noexcept;
KVX_API int setNonBlocking(SocketHandle socket, bool on) noexcept;
/// Asks for kernel buffers of `bytes`; the system may round. For tests and benchmarks.
KVX_API int setBufferSizes(SocketHandle socket, int sendBytes, int receiveBytes) noexcept;

/// Connects. A non-blocking socket returns `kInProgress`; when it becomes writable, `pendingError`
/// returns the outcome.
KVX_API int connectSocket(SocketHandle socket, Endpoint peer) noexcept;
/// Returns and clears the pending error of the socket (0 for none).
KVX_API int pendingError(SocketHandle socket) noexcept;

/// The outcome of one send or receive: the bytes moved, or 0 and an error. A receive of 0 bytes
/// without an error is the peer's end of the stream.
struct IoResult {
    std::size_t bytes = 0;
    int error = 0;
};
KVX_API IoResult sendSome(SocketHandle socket, std::span<const std::byte> bytes) noexcept;
/// Sends several pieces as one, in their order; at most `kMaxPieces` of them.
inline constexpr std::size_t kMaxPieces = 16;
KVX_API IoResult sendPieces(SocketHandle socket,
                            std::span<const std::span<const std::byte>> pieces) noexcept;
KVX_API IoResult receiveSome(SocketHandle socket, std::span<std::byte> buffer) noexcept;
/// Closes the sending direction; receiving goes on.
KVX_API int shutdownSending(SocketHandle socket) noexcept;

/// Interest and result of a wait; values combine with `|` and equal the event manager's conditions.
enum Readiness : unsigned { kReadable = 1, kWritable = 2, kException = 4 };

/// A wait without time-out.
inline constexpr Milliseconds kForever = -1;

struct WaitResult {
    unsigned ready = 0;  ///< the `Readiness` bits found; 0 after a time-out
    int error = 0;       ///< `kInterrupted` when a signal came first
};
/// Waits until `socket` is ready for one of `interest`, for at most `timeout` (0 polls). A socket
/// whose peer has closed counts as readable.
KVX_API WaitResult waitSocket(SocketHandle socket, unsigned interest,
                              Milliseconds timeout) noexcept;

/// A listening socket on `local` (port 0 takes a free one).
[[nodiscard]] KVX_API Socket listenTcp(Endpoint local, int& error, int backlog = 128) noexcept;
/// Accepts the next connection; blocks if the listening socket is blocking.
[[nodiscard]] KVX_API Socket acceptTcp(SocketHandle listener, int& error) noexcept;

/// The address and port of this end, and of the peer; nothing when the socket has none.
[[nodiscard]] KVX_API std::optional<Endpoint> localEndpoint(SocketHandle socket) noexcept;
[[nodiscard]] KVX_API std::optional<Endpoint> peerEndpoint(SocketHandle socket) noexcept;

/// The first IPv4 address of a host name, or of a dotted address. May block on the resolver.
[[nodiscard]] KVX_API std::optional<std::uint32_t> resolveHost(const std::string& name);
/// The address "a.b.c.d", four decimal numbers; nothing for any other text.
[[nodiscard]] KVX_API std::optional<std::uint32_t> parseDottedAddress(const std::string& text);
/// "a.b.c.d" of an address.
[[nodiscard]] KVX_API std::string dottedAddress(std::uint32_t address);

/// This host's name as the system reports it; nothing on failure.
[[nodiscard]] KVX_API std::optional<std::string> localHostName();
/// The first IPv4 address of an interface that is up and not the loopback; nothing without one.
[[nodiscard]] KVX_API std::optional<std::uint32_t> localHostAddress();

}  // namespace kvx::platform
