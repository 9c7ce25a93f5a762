#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Told.h"

namespace kvx::sim {

/// The identity of a message: its sender's session and its place among what that session sent.
struct MessageId {
    unsigned sender = 0;
    unsigned number = 0;
    auto operator<=>(const MessageId&) const = default;

    [[nodiscard]] std::string text() const;
    /// Reads the beginning of a payload; a sender of 0 when there is no identity.
    static MessageId of(std::string_view payload);
};

/// Whether a listen on `pattern` hears a message on `subject`; on one with wildcards, whether each
/// subject of the listen matches it. Written without the daemon's and the library's matchers.
[[nodiscard]] bool hears(const std::string& pattern, const std::string& subject);

/// What the daemon owes to each connection, and what it paid.
///
/// Watches the bytes that the daemon reads and writes. From what it reads follow the messages due
/// to each session; each that it writes must be due, once, in the order of its sender; what is left
/// out must be announced as lost, ahead of what follows, oldest first and exactly. While the daemon
/// has work left over, the order of what it has read from different connections is not certain:
/// what depends on it may, but need not be delivered.
class Ledger {
  public:
    /// The link's handshake is that of version 3.
    void speaksV3(unsigned link) { sessions_[link].down.head = 76; }
    void daemonRead(unsigned link, std::string_view bytes);
    void daemonWrote(unsigned link, std::string_view bytes);
    /// The daemon does not process any more what it reads from the link.
    void ignored(unsigned link);
    /// The link has ended for the daemon.
    void left(unsigned link);
    /// The daemon's close notice is written.
    [[nodiscard]] bool isClosed(unsigned link) { return sessions_[link].closedByDaemon; }
    /// What was read so far is processed: the order of what follows is certain.
    void daemonHasCaughtUp();

    /// A session has published a message, which its library accepted or not.
    void sent(MessageId id, bool accepted) { accepted_[id] = accepted; }

    /// Nothing waits anywhere: each session that follows interest knows what the others of its
    /// space listen to.
    void checkInterest() const;

    /// Nothing waits anywhere: what is due to a living session has arrived or is announced as lost.
    void checkCalm() const;

    /// By which the message reached the daemon. The order of a sender is that of each of its links:
    /// after a reconnection the new one may overtake what the daemon has still to do for the old.
    [[nodiscard]] unsigned linkOf(MessageId id) const {
        const auto found = published_.find(id);
        return found == published_.end() ? 0 : found->second;
    }

    std::size_t queueLimit = 0;  ///< of the daemon
    bool noMemory = false;       ///< the daemon's memory failed: it drops the newest

  private:
    struct Stream {
        std::size_t head;  // bytes of the handshake still to come
        std::string held;
    };
    struct Due {
        MessageId id;
        bool certain;  // else it depends on what the daemon processed, and in which order
        bool tooLarge;
        unsigned from;  // link
        std::uint64_t readIn;
        bool paid = false;
    };
    struct Listens {
        unsigned count = 0;
        std::uint64_t since = 0;
        std::uint64_t endedIn = 0;
    };
    struct Session {
        Stream up{76, {}};
        Stream down{140, {}};
        bool joined = false;
        bool isIgnored = false;
        bool gone = false;
        bool closedByDaemon = false;  // by a notice
        std::string space;
        std::map<std::string, Listens> listens;
        std::vector<Due> due;
        std::map<MessageId, std::size_t> places;  // in `due`
        std::map<unsigned, MessageId> lastPaid;   // by the sender's link
        std::uint64_t skipped = 0;                // in the order of each of these
        std::uint64_t announced = 0;
        MessageId lastRead;
        // It follows the interest of its space, which also reaches its queue.
        bool follows = false;
        bool hasFollowed = false;
        std::uint64_t followsSince = 0;  // or has ended
        test::Told told;
    };

    struct Published {
        unsigned from;
        std::string space;
        std::string subject;
        MessageId id;
        std::size_t size;
    };

    template <class Visit>
    static void cut(Stream& stream, std::string_view bytes, Visit visit);
    void fromClient(unsigned link, Session& session, std::string_view message);
    void noteFollowing(Session& session, const std::string& subject);
    static std::set<std::string> subjectsOf(const Session& session);
    void makeUncertain(Session& session) const;
    static std::uint64_t mayBeLost(const Session& session, const Due& paid);
    void published(const Published& message);
    void owe(unsigned link, Session& session, const Published& message, bool mayBeLate);
    void checkArrival(Session& from, MessageId id);
    void toClient(unsigned link, Session& session, std::string_view message);
    void pay(unsigned link, Session& session, MessageId id);

    std::map<unsigned, Session> sessions_;     // by link
    std::vector<Published> recent_;            // in this epoch
    std::map<MessageId, unsigned> published_;  // by which link
    std::map<MessageId, bool> accepted_;
    std::uint64_t epoch_ = 1;
};

}  // namespace kvx::sim
