#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rv/message/SlotTable.h"
#include "rv/message/SubjectHash.h"
#include "rv/message/SubjectTree.h"
#include "rv/message/SubjectView.h"
#include "rvd/Counters.h"
#include "rvd/Payload.h"

namespace kvx::rvd {

/// Receives the messages that match a session.
class Receiver {
  public:
    virtual ~Receiver() = default;
    virtual void deliver(const PayloadRef& message) = 0;
};

/// Sessions, their spaces, and their listens.
///
/// A space is a service and a network; messages never cross spaces. Listens are counted per session
/// and subject. Loop thread only; does no I/O.
class Router {
  public:
    /// Distinct subjects that one session may listen to.
    static constexpr std::size_t kMaxListens = 262'144;

    class Session;

    explicit Router(Counters& counters);
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;
    ~Router();

    /// Opens a session in the space. `receiver` is only returned by `match`; it must outlive the
    /// session, which exists until `leave`. Throws `std::bad_alloc` and changes nothing.
    Session& join(std::string_view service, std::string_view network, Receiver& receiver);

    /// The session matches nothing any more. It is destroyed, with its listens, by `clearUp`, which
    /// a session of few listens does not need. Needs no memory.
    void leave(Session& session);

    /// Whether `clearUp` has something to do.
    [[nodiscard]] bool hasLeft() const { return !left_.empty(); }
    /// Undoes up to `most` listens of sessions that have left. Returns whether some are left.
    bool clearUp(std::size_t most);

    /// Counts one listen. Returns false, and changes nothing, above `kMaxListens`; likewise throws
    /// `std::bad_alloc`.
    [[nodiscard]] bool listen(Session& session, SubjectView subject);

    /// Undoes one listen; one that was never made is ignored.
    void cancel(Session& session, SubjectView subject);

    /// The receivers of the sessions that match a message of `from` on `subject`, `from` included,
    /// each once. The span is valid until the next call of any function.
    [[nodiscard]] std::span<Receiver* const> match(const Session& from, SubjectView subject);

    [[nodiscard]] std::size_t spaces() const { return spaces_.size(); }

  private:
    /// How often a session listens to a subject.
    struct Listen {
        SubjectTree<Session>::SubjectId subject = 0;
        std::uint32_t number = 0;  // 0: a free slot of the table
    };
    struct ListenHash {
        std::uint32_t operator()(const Listen& listen) const {
            return SubjectHash::forSlot(hash.ofNumber(listen.subject));
        }
        SubjectHash hash;
    };
    using Listens = BasicSlotTable<Listen, ListenHash>;
    struct Space;
    using SpaceName = std::pair<std::string, std::string>;

    using Sessions = std::list<std::unique_ptr<Session>>;

    static Listen* listenOf(const Session& session, SubjectView subject);
    static void undo(Session& session, Listen& listen);

    Counters& counters_;
    std::map<SpaceName, std::unique_ptr<Space>> spaces_;
    Sessions left_;  // sessions that have left, and still have listens
    std::vector<Receiver*> matched_;
    std::uint64_t matchNumber_ =
        0;  // identifies sessions already collected for the current message
};

/// One peer after its init. Owned by the router.
class Router::Session {
  public:
    [[nodiscard]] bool isIn(std::string_view service, std::string_view network) const;

    /// Memory of its listens in bytes, an upper estimate.
    [[nodiscard]] std::size_t listenBytes() const { return listenBytes_; }

  private:
    friend class Router;
    Session(Space& space, Receiver& receiver);

    Space& space_;
    Receiver* receiver_;  // null once it has left
    Sessions::iterator place_;
    std::uint64_t listenCount_ = 0;
    std::uint64_t lastMatch_ = 0;
    std::size_t listenBytes_ = 0;
    Listens listens_;
};

}  // namespace kvx::rvd
