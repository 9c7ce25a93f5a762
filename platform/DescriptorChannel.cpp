#include "platform/DescriptorChannel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace kvx::platform {

void Descriptor::reset() noexcept {
    if (descriptor_ >= 0) ::close(std::exchange(descriptor_, -1));
}

std::optional<std::pair<DescriptorChannel, DescriptorChannel>> DescriptorChannel::make() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return std::nullopt;
    return std::pair(DescriptorChannel(Descriptor(ends[0])),
                     DescriptorChannel(Descriptor(ends[1])));
}

bool DescriptorChannel::waitFor(short events, Milliseconds timeout) const noexcept {
    const Milliseconds until = monotonicMs() + timeout;
    for (;;) {
        pollfd entry{end_.get(), events, 0};
        const Milliseconds left = std::clamp<Milliseconds>(until - monotonicMs(), 0, INT_MAX);
        const int ready = ::poll(&entry, 1, timeout < 0 ? -1 : static_cast<int>(left));
        if (ready >= 0 || errno != EINTR) return ready > 0;
    }
}

bool DescriptorChannel::send(std::span<const std::uint8_t> bytes, std::span<const int> descriptors,
                             Milliseconds timeout) {
    iovec piece{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
    std::vector<std::uint8_t> control(descriptors.empty() ? 0
                                                          : CMSG_SPACE(descriptors.size_bytes()));
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    if (!descriptors.empty()) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* const head = CMSG_FIRSTHDR(&message);
        head->cmsg_level = SOL_SOCKET;
        head->cmsg_type = SCM_RIGHTS;
        head->cmsg_len = CMSG_LEN(descriptors.size_bytes());
        std::memcpy(CMSG_DATA(head), descriptors.data(), descriptors.size_bytes());
    }
    while (waitFor(POLLOUT, timeout)) {
        const ssize_t sent = ::sendmsg(end_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) return static_cast<std::size_t>(sent) == bytes.size();
        if (errno != EINTR && errno != EAGAIN) return false;
    }
    return false;
}

std::optional<DescriptorChannel::Message> DescriptorChannel::receive(Milliseconds timeout) {
    Message received;
    received.bytes.resize(kMostBytes);
    std::vector<std::uint8_t> control(CMSG_SPACE(kMostDescriptors * sizeof(int)));
    iovec piece{received.bytes.data(), received.bytes.size()};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t count = -1;
    while (count < 0) {
        if (!waitFor(POLLIN, timeout)) return std::nullopt;
        count = ::recvmsg(end_.get(), &message, MSG_CMSG_CLOEXEC | MSG_DONTWAIT);
        if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN)) return std::nullopt;
    }
    received.bytes.resize(static_cast<std::size_t>(count));
    for (cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr;
         head = CMSG_NXTHDR(&message, head)) {
        if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS) continue;
        for (std::size_t at = 0; CMSG_LEN(at + sizeof(int)) <= head->cmsg_len; at += sizeof(int)) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(head) + at, sizeof descriptor);
            received.descriptors.emplace_back(descriptor);
        }
    }
    if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) return std::nullopt;
    return received;
}

Descriptor MemoryFile::create() noexcept {
    return Descriptor(::memfd_create("state", MFD_CLOEXEC));
}

bool MemoryFile::write(int file, std::span<const std::uint8_t> bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t count = ::write(file, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

MemoryFile::MemoryFile(int file) noexcept {
    struct stat facts {};
    if (::fstat(file, &facts) != 0 || facts.st_size <= 0) return;
    const auto size = static_cast<std::size_t>(facts.st_size);
    void* const mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
    if (mapped != MAP_FAILED) bytes_ = {static_cast<const std::uint8_t*>(mapped), size};
}

MemoryFile::~MemoryFile() {
    if (!bytes_.empty()) ::munmap(const_cast<std::uint8_t*>(bytes_.data()), bytes_.size());
}

}  // namespace kvx::platform
