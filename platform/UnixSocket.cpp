// A listening socket leaves its file behind when its process is killed, so a file that is there
// says little: whether somebody accepts is found out by connecting. From that look to the moment
// the new socket listens, the directory is locked; else two processes that start at once could both
// find the old file, and the second would remove the socket of the first.

#include "platform/UnixSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "platform/Clock.h"

namespace kvx::platform {

namespace {

static_assert(kMaxUnixPath == sizeof(sockaddr_un::sun_path) - 1);

constexpr mode_t kForEverybody = 0666;
constexpr int kLockTries = 200;
constexpr Milliseconds kLockPause = 10;

int lastError() noexcept {
    return socketErrorFromErrno(errno);
}

std::string textOfErrno() {
    return std::generic_category().message(errno);
}

bool fill(sockaddr_un& address, const std::string& path) noexcept {
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() > kMaxUnixPath) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// An open descriptor of the directory of `path`, locked; empty with `error`. Closing it unlocks.
Socket lockDirectoryOf(const std::string& path, std::string& error) {
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    Socket held(
        ::open(directory.empty() ? "." : directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int tries = 0; held && tries < kLockTries; ++tries) {
        if (::flock(held.get(), LOCK_EX | LOCK_NB) == 0) return held;
        if (errno != EWOULDBLOCK && errno != EINTR) break;
        sleepMs(kLockPause);
    }
    error = held && errno == EWOULDBLOCK ? "another process has locked its directory"
                                         : "its directory: " + textOfErrno();
    return {};
}

// Whether `path` is free now. A socket where nobody accepts is removed.
bool makeFree(const std::string& path, std::string& error) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) {
        if (errno == ENOENT) return true;
        error = textOfErrno();
        return false;
    }
    if (!S_ISSOCK(found.st_mode)) {
        error = "a file that is no socket has this path";
        return false;
    }
    int failure = 0;
    const Socket probe = createUnixSocket(failure);
    if (!probe) {
        error = textOfErrno();
        return false;
    }
    failure = setNonBlocking(probe.get(), true);
    if (failure == 0) failure = connectUnix(probe.get(), path);
    if (failure == socket_error::kRefused) {
        if (::unlink(path.c_str()) == 0) return true;
        error = textOfErrno();
    } else if (failure == socket_error::kAccessDenied) {
        error = "a socket that this user may not connect to has this path";
    } else {
        error = "another process serves there";
    }
    return false;
}

}  // namespace

Socket createUnixSocket(int& error) noexcept {
    const int handle = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    error = handle < 0 ? lastError() : 0;
    return handle < 0 ? Socket() : Socket(handle);
}

int connectUnix(SocketHandle socket, const std::string& path) noexcept {
    sockaddr_un address{};
    if (!fill(address, path)) return socket_error::kInvalidArgument;
    const auto* const name = reinterpret_cast<const sockaddr*>(&address);
    return ::connect(socket, name, sizeof address) == 0 ? 0 : lastError();
}

std::optional<PeerIdentity> peerIdentity(SocketHandle socket) noexcept {
    ucred peer{};
    socklen_t length = sizeof peer;
    int family = 0;
    socklen_t familyLength = sizeof family;
    if (::getsockopt(socket, SOL_SOCKET, SO_DOMAIN, &family, &familyLength) != 0 ||
        family != AF_UNIX || ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) {
        return std::nullopt;
    }
    return PeerIdentity{static_cast<std::uint32_t>(peer.pid), peer.uid};
}

SocketFile::SocketFile(std::string path) noexcept {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) return;
    path_ = std::move(path);
    device_ = found.st_dev;
    inode_ = found.st_ino;
}

SocketFile& SocketFile::operator=(SocketFile&& other) noexcept {
    if (this == &other) return *this;
    remove();
    path_ = std::exchange(other.path_, {});
    device_ = other.device_;
    inode_ = other.inode_;
    return *this;
}

void SocketFile::remove() noexcept {
    struct stat found {};
    if (path_.empty()) return;
    const bool isOurs =
        ::lstat(path_.c_str(), &found) == 0 && found.st_dev == device_ && found.st_ino == inode_;
    if (isOurs) ::unlink(path_.c_str());
    path_.clear();
}

Socket listenUnix(const std::string& path, int backlog, std::string& error) {
    error.clear();
    sockaddr_un address{};
    if (!fill(address, path)) {
        error = "the path is empty, or longer than " + std::to_string(kMaxUnixPath) + " bytes";
        return {};
    }
    const Socket directory = lockDirectoryOf(path, error);
    if (!directory || !makeFree(path, error)) return {};
    int failure = 0;
    Socket listener = createUnixSocket(failure);
    const auto* const name = reinterpret_cast<const sockaddr*>(&address);
    // Nobody can connect before it listens, so the mode that the file has until then does not
    // matter.
    if (listener && ::bind(listener.get(), name, sizeof address) == 0) {
        if (::fchmodat(AT_FDCWD, path.c_str(), kForEverybody, AT_SYMLINK_NOFOLLOW) == 0 &&
            ::listen(listener.get(), backlog) == 0) {
            return listener;
        }
        error = textOfErrno();
        ::unlink(path.c_str());
        return {};
    }
    error = textOfErrno();
    return {};
}

}  // namespace kvx::platform
