#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "platform/Socket.h"

namespace kvx::sim {

using platform::IoResult;
using platform::Milliseconds;
using platform::SocketHandle;

/// One direction of a connection: a bounded buffer.
struct Pipe {
    std::string bytes;
    std::uint64_t taken = 0;  ///< bytes, by the reader
    std::size_t capacity = 0;
    Milliseconds stalledUntil = 0;  ///< nothing moves before
    bool ended = false;             ///< the writer has closed its end
    bool readerGone = false;
    bool reset = false;
};

/// A connection between a client and the daemon.
struct Link {
    unsigned number;
    unsigned client;  ///< the number of the program that connected
    bool isOld;       ///< the daemon seems to know version 3 only
    platform::Endpoint from;
    Pipe up;    ///< to the daemon
    Pipe down;  ///< to the client
};

/// The virtual network: one host, where a daemon listens or does not, and its connections. Moves
/// bytes in pieces of random sizes.
class Network {
  public:
    /// A new handle: a TCP socket, or one that is readable while `rings()`.
    SocketHandle open(std::function<bool()> rings = {});
    [[nodiscard]] bool isOpen(SocketHandle handle) const;
    [[nodiscard]] std::size_t openSockets() const;
    void close(SocketHandle handle);

    // The client's end.
    int connect(SocketHandle handle, unsigned client);
    [[nodiscard]] int takeError(SocketHandle handle);

    // The daemon's end.
    void listen(bool on);
    /// Whether `accept` has one. Who has lost a connection comes back when the daemon has processed
    /// what came by the lost one, whose messages nobody can order with the later ones.
    [[nodiscard]] bool hasBacklog() const;
    SocketHandle accept();

    /// The number of the link with that port at the client's end.
    static unsigned linkAt(unsigned long port) { return static_cast<unsigned>(port) - kFirstPort; }

    // Either end.
    IoResult send(SocketHandle handle, const void* bytes, std::size_t size);
    IoResult receive(SocketHandle handle, void* buffer, std::size_t size);
    void endSending(SocketHandle handle);
    [[nodiscard]] bool readable(SocketHandle handle) const;
    [[nodiscard]] bool writable(SocketHandle handle) const;
    [[nodiscard]] const Link* linkOf(SocketHandle handle) const;

    // Faults, on all connections of a client.
    void cut(unsigned client);
    void stall(unsigned client, bool up, Milliseconds duration);
    void refuse(Milliseconds duration);
    void heal();

    /// When the next stall or refusal ends; 0 for none.
    [[nodiscard]] Milliseconds nextChange(Milliseconds now) const;
    [[nodiscard]] std::uint64_t moved() const { return moved_; }

    std::set<unsigned> oldClients;  ///< whose connections are old
    bool daemonIsBehind = false;    ///< it has read more than it has processed
    std::size_t capacity = 4096;    ///< of the pipes of connections made from now on

  private:
    struct Socket {
        bool isDaemons = false;
        int error = 0;
        std::shared_ptr<Link> link;
        std::function<bool()> rings;

        [[nodiscard]] Pipe& in() const { return isDaemons ? link->up : link->down; }
        [[nodiscard]] Pipe& out() const { return isDaemons ? link->down : link->up; }
    };
    static constexpr SocketHandle kFirstHandle = 100;
    static constexpr unsigned kFirstPort = 10'000;

    [[nodiscard]] Socket& at(SocketHandle handle) const;
    static void reset(Link& link);
    template <class Visit>
    void eachLink(Visit visit) const;
    static bool passesVersion(const Socket& socket, std::span<char> piece);

    std::vector<std::unique_ptr<Socket>> sockets_;  // null: closed
    std::vector<std::weak_ptr<Link>> links_;
    std::deque<std::shared_ptr<Link>> backlog_;
    bool listening_ = false;
    Milliseconds refusedUntil_ = 0;
    std::uint64_t moved_ = 0;
};

}  // namespace kvx::sim
