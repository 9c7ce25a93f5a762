// Waiting for sockets.
//
// A PollSet is one array of poll(2) entries sorted by socket, with the wake-up descriptor (or an
// entry that poll ignores) at the end, where it costs least: once an entry is ready, the system
// registers no waiter for those after it. poll writes only `revents`, so the same array is passed
// to every wait. Readiness is that of select(): the end of a connection and an error make a socket
// readable, an error makes it writable.

#include "platform/Poll.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <new>

#include "platform/Waiting.h"

namespace kvx::platform {

namespace detail {

short pollEventsOf(unsigned interest) noexcept {
    int events = 0;
    if ((interest & kReadable) != 0) events |= POLLIN;
    if ((interest & kWritable) != 0) events |= POLLOUT;
    if ((interest & kException) != 0) events |= POLLPRI;
    return static_cast<short>(events);
}

unsigned readinessOf(short events, unsigned interest) noexcept {
    unsigned ready = 0;
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) ready |= kReadable;
    if ((events & (POLLOUT | POLLERR)) != 0) ready |= kWritable;
    if ((events & (POLLPRI | POLLERR)) != 0) ready |= kException;
    ready &= interest;
    // poll always reports a hang-up. It is passed on whatever the interest is: hidden, it would
    // wake the loop again and again.
    if (ready == 0 && (events & POLLHUP) != 0) ready = interest;
    return ready;
}

int pollFor(std::span<pollfd> entries, Milliseconds timeout) noexcept {
    const bool limited = timeout >= 0;
    if (limited && ManualClock::waitsAdvance()) {
        const int found = ::poll(entries.data(), entries.size(), 0);
        if (found == 0) ManualClock::advanceInsteadOfWaiting(timeout);
        return found;
    }
    const int limit = limited ? static_cast<int>(std::min<Milliseconds>(timeout, INT_MAX)) : -1;
    return ::poll(entries.data(), entries.size(), limit);
}

}  // namespace detail

WakeUp::WakeUp() noexcept : descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

WakeUp::~WakeUp() {
    if (valid()) ::close(descriptor_);
}

void WakeUp::notify() const noexcept {
    const int saved = errno;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(descriptor_, &one, sizeof one);
    errno = saved;
}

void WakeUp::drain() const noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t read = ::read(descriptor_, &count, sizeof count);
}

struct PollSet::Entries {
    std::vector<pollfd> polled;      // the sockets in ascending order, then the wake-up
    std::vector<unsigned> interest;  // `Readiness` bits, parallel to `polled`

    // The index of `socket`, or where to insert it.
    [[nodiscard]] std::size_t indexOf(SocketHandle socket) const noexcept {
        const auto at =
            std::lower_bound(polled.begin(), polled.end() - 1, socket,
                             [](const pollfd& entry, SocketHandle s) { return entry.fd < s; });
        return static_cast<std::size_t>(at - polled.begin());
    }
    [[nodiscard]] bool holds(std::size_t index, SocketHandle socket) const noexcept {
        return index + 1 < polled.size() && polled[index].fd == socket;
    }
    [[nodiscard]] bool insert(std::size_t index, SocketHandle socket) noexcept {
        const auto at = static_cast<std::ptrdiff_t>(index);
        try {
            interest.insert(interest.begin() + at, 0);
            polled.insert(polled.begin() + at, {socket, 0, 0});
            return true;
        } catch (const std::bad_alloc&) {
            if (interest.size() > polled.size()) interest.erase(interest.begin() + at);
            return false;
        }
    }
    void erase(std::size_t index) noexcept {
        const auto at = static_cast<std::ptrdiff_t>(index);
        polled.erase(polled.begin() + at);
        interest.erase(interest.begin() + at);
    }
    void setInterest(std::size_t index, unsigned bits) noexcept {
        interest[index] = bits;
        polled[index].events = detail::pollEventsOf(bits);
    }
};

PollSet::PollSet(WakeUp* wakeUp) : entries_(std::make_unique<Entries>()), wakeUp_(wakeUp) {
    const int descriptor = wakeUp == nullptr ? -1 : wakeUp->descriptor();
    entries_->polled.push_back({descriptor, POLLIN, 0});
    entries_->interest.push_back(kReadable);
}

PollSet::~PollSet() = default;

bool PollSet::add(SocketHandle socket, unsigned interest) noexcept {
    const std::size_t index = entries_->indexOf(socket);
    if (!entries_->holds(index, socket) && !entries_->insert(index, socket)) return false;
    entries_->setInterest(index, entries_->interest[index] | interest);
    return true;
}

void PollSet::remove(SocketHandle socket, unsigned interest) noexcept {
    const std::size_t index = entries_->indexOf(socket);
    if (!entries_->holds(index, socket)) return;
    const unsigned left = entries_->interest[index] & ~interest;
    if (left == 0) {
        entries_->erase(index);
    } else {
        entries_->setInterest(index, left);
    }
}

std::size_t PollSet::size() const noexcept {
    return entries_->polled.size() - 1;
}

int PollSet::wait(Milliseconds timeout) noexcept {
    auto& polled = entries_->polled;
    readyCount_ = 0;
    const int found = detail::pollFor(polled, timeout);
    if (found < 0) {
        const int error = socketErrorFromErrno(errno);
        for (pollfd& entry : polled) entry.revents = 0;
        return error;
    }
    readyCount_ = static_cast<std::size_t>(found);
    if (polled.back().revents != 0) {
        wakeUp_->drain();
        --readyCount_;
    }
    if (readyCount_ == 0) return 0;
    const bool closed = std::any_of(polled.begin(), polled.end(), [](const pollfd& entry) {
        return (entry.revents & POLLNVAL) != 0;
    });
    return closed ? socket_error::kNotASocket : 0;
}

PollSet::Slot PollSet::slot(std::size_t i) const noexcept {
    const pollfd& entry = entries_->polled[i];
    return {entry.fd, detail::readinessOf(entry.revents, entries_->interest[i])};
}

}  // namespace kvx::platform
