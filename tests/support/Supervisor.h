#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <list>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Descriptor.h"
#include "tests/support/TemporaryDirectory.h"

namespace kvx::test {

/// Starts programs as a supervisor of services does, and hears what they tell it.
class Supervisor {
  public:
    struct Told {
        std::string text;
        pid_t pid = 0;  ///< of who has told it
    };

    Supervisor() {
        sockaddr_un address{AF_UNIX, {}};
        name_.copy(address.sun_path, sizeof address.sun_path - 1);
        const int on = 1;
        if (bind(end_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            setsockopt(end_.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
            throw std::runtime_error("no socket for what is told");
        }
    }

    /// The shell's command that runs `words`, passes `sockets`, and asks process `whom` for a sign
    /// of life every 50 ms.
    std::string command(const std::string& words, const std::vector<int>& sockets = {},
                        const std::string& whom = "$$") {
        std::string passed;
        for (std::size_t i = 0; i < sockets.size(); ++i) {
            const auto& copy = copies_.emplace_back(fcntl(sockets[i], F_DUPFD, 20));  // inherited
            passed += ' ' + std::to_string(3 + i) + "<&" + std::to_string(copy.get());
        }
        return "exec bash -c 'export NOTIFY_SOCKET=" + name_ + " WATCHDOG_USEC=100000" +
               " WATCHDOG_PID=" + whom + " LISTEN_PID=$$" +
               " LISTEN_FDNAMES=test LISTEN_FDS=" + std::to_string(sockets.size()) +
               R"(; exec "$0" "$@")" + passed + "' " + words;
    }

    /// What is told next; an empty text when nothing is within that time.
    Told hear(int milliseconds = 60'000) const {
        pollfd entry{end_.get(), POLLIN, 0};
        if (poll(&entry, 1, milliseconds) <= 0) return {};
        char text[200];
        iovec piece{text, sizeof text};
        // Room for who it is, and for no descriptor: what comes with a barrier is closed.
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
        msghdr message{};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t size = recvmsg(end_.get(), &message, MSG_CMSG_CLOEXEC);
        if (size <= 0) return {};
        ucred who{};
        std::memcpy(&who, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof who);
        return {std::string(text, static_cast<std::size_t>(size)), who.pid};
    }

    /// All that is told up to `last`, or until nothing is.
    std::vector<std::string> hearUntil(const std::string& last) const {
        std::vector<std::string> all;
        do {
            all.push_back(hear().text);
        } while (all.back() != last && !all.back().empty());
        return all;
    }

  private:
    TemporaryDirectory directory_;
    const std::string name_ = directory_.file("notify");
    const platform::Descriptor end_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::list<platform::Descriptor> copies_;
};

}  // namespace kvx::test
