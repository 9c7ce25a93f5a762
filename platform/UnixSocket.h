#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "platform/Export.h"
#include "platform/Socket.h"

/// Unix stream sockets, which have a path in the file system. What `Socket.h` says of results,
/// descriptors and threads holds here too; sending, receiving and waiting is the same.
namespace kvx::platform {

/// The longest path of a socket, in bytes.
inline constexpr std::size_t kMaxUnixPath = 107;

/// As `createTcpSocket`.
[[nodiscard]] KVX_API Socket createUnixSocket(int& error) noexcept;

/// Connects. A non-blocking socket returns `kWouldBlock` when the listener has as many connections
/// to accept as it may: nothing is under way then, and another call may succeed later.
KVX_API int connectUnix(SocketHandle socket, const std::string& path) noexcept;

/// The process that connected a unix socket, as the system knows it. The ids are those of the
/// moment of connecting; a process of another container has the id 0.
struct PeerIdentity {
    std::uint32_t pid = 0;
    std::uint32_t uid = 0;
};
/// Nothing for a socket of another kind.
[[nodiscard]] KVX_API std::optional<PeerIdentity> peerIdentity(SocketHandle socket) noexcept;

/// The file of a listening socket. Removes it at its end, unless another file has its path by then.
/// Destroy it before the socket is closed: a daemon that starts meanwhile then finds either a
/// socket that is served or no file. Move-only.
class KVX_API SocketFile {
  public:
    SocketFile() = default;  ///< none
    /// Adopts the file at `path`.
    explicit SocketFile(std::string path) noexcept;
    SocketFile(SocketFile&& other) noexcept : SocketFile() { *this = std::move(other); }
    SocketFile& operator=(SocketFile&& other) noexcept;
    SocketFile(const SocketFile&) = delete;
    SocketFile& operator=(const SocketFile&) = delete;
    ~SocketFile() { remove(); }

    void remove() noexcept;

  private:
    std::string path_;  // empty: none
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
};

/// A listening socket at `path`, which every local user may connect to who may search its
/// directory. Takes the place of a socket where nobody accepts, and of no other file. On failure
/// returns an empty socket and sets `error` to the reason, a text for people. Of processes that
/// listen at one path at the same time one succeeds; the directory must be readable for that.
[[nodiscard]] KVX_API Socket listenUnix(const std::string& path, int backlog, std::string& error);

}  // namespace kvx::platform
