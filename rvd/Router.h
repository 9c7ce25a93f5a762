#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "rv/message/SlotTable.h"
#include "rv/message/SubjectHash.h"
#include "rv/message/SubjectTree.h"
#include "rv/message/SubjectView.h"
#include "rvd/Counters.h"
#include "rvd/Interest.h"
#include "rvd/Receiver.h"
#include "rvd/State.h"

namespace kvx::rvd {

/// Sessions, their spaces, and their listens.
///
/// A space is a service and a network; messages never cross spaces. Listens are counted per session
/// and subject. Loop thread only; does no I/O.
///
/// A session that listens to "_RVD.INTEREST" follows the interest of its space: it is told which
/// subjects gain their first and lose their last listen (see `Interest`). What it listens to itself
/// is not told, and what it sends does not reach those who follow. It begins to follow only while
/// it has few listens; otherwise that listen is one like any other. Once it has cancelled it, it is
/// told nothing more; the rest holds until it has cancelled all its listens.
class Router {
  public:
    /// Distinct subjects that one session may listen to.
    static constexpr std::size_t kMaxListens = 262'144;
    /// Of one that follows: it listens for all other hosts.
    static constexpr std::size_t kMaxListensOfFollower = 16 * kMaxListens;
    /// Steps that the patterns of one session, but for the first few, may cost a message that fits
    /// none of them: about two for each node of the tree that it reaches. Patterns of n elements
    /// with wildcards at the same places cost about 2 n together. What would cost a session that
    /// follows more is delivered to it.
    static constexpr std::size_t kMaxSteps = 1'024;
    /// Listens that a session which begins to follow may have.
    static constexpr std::size_t kFewListens = 64;

    class Session;
    class Match;
    class Trace;

    /// `queueLimit`: what may wait for one session, in bytes; what is told fits into that.
    explicit Router(Counters& counters, std::size_t queueLimit = kUnlimitedQueue);
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
    /// Memory of their listens in bytes, an upper estimate.
    [[nodiscard]] std::size_t orphanedBytes() const { return orphanedBytes_; }
    /// Undoes up to `most` listens of sessions that have left. Returns whether some are left.
    bool clearUp(std::size_t most);

    /// Counts one listen, and undoes a few of sessions that have left. Returns false, and changes
    /// nothing, above `kMaxListens`; likewise throws `std::bad_alloc`.
    [[nodiscard]] bool listen(Session& session, SubjectView subject);

    /// Undoes one listen; one that was never made is ignored.
    void cancel(Session& session, SubjectView subject);

    /// For the daemon that takes this one's place: who the followers know it as.
    void save(StateWriter& state) const { state.text(interest_.daemon); }
    void restore(StateReader& state) { interest_.daemon = state.text(); }
    /// The listens of a session. One that is restored must be new; when it follows, all others of
    /// its space must have been restored before, so that it is told of them.
    static void save(const Session& session, StateWriter& state);
    void restore(Session& session, StateReader& state);

    /// The result of the last match of one turn, if it was that of a message of the same space on
    /// the same subject, and nobody has come, gone or listened since: one sender's messages come
    /// many at a time. Nothing otherwise. Valid until the next call of any function.
    [[nodiscard]] std::optional<std::span<Receiver* const>> lastMatch(const Session& from,
                                                                      SubjectView subject) const;

    /// Delivers what has changed to a session that is told. It has been delivered already when a
    /// match returns that session's receiver. Needs no memory: without it, `refresh` helps.
    static void tell(Session& session) noexcept;
    /// Likewise, and the next piece of the snapshot under way.
    static void tellMore(Session& session) noexcept;
    [[nodiscard]] static bool hasMoreToTell(const Session& session);
    /// Begins a fresh snapshot, if something could not be told or its queue has lost something
    /// since the last one began; `losses`: all so far.
    void refresh(Session& session, std::uint64_t losses) noexcept;

    [[nodiscard]] std::size_t spaces() const { return spaces_.size(); }

  private:
    static constexpr std::size_t kUnlimitedQueue = 1'000'000;

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
    struct OwnTree;
    struct Place;
    using SpaceName = std::pair<std::string, std::string>;
    using Sessions = std::list<std::unique_ptr<Session>>;

    bool follow(Session& session);
    static void moveToOwnTree(Session& session);
    void unfollow(Session& session) noexcept;
    static std::uint32_t add(Session& session, SubjectTree<Session>& tree, SubjectView subject);
    static void dropOwnTree(Session& session) noexcept;
    static void forget(Session& session, const Place& place) noexcept;
    static Place placeOf(Session& session, SubjectView subject);
    static Place placeFor(Session& session, SubjectView subject);
    static void undo(Session& session, const Place& place);

    Counters& counters_;
    Interest::Settings interest_;
    std::map<SpaceName, std::unique_ptr<Space>> spaces_;
    Sessions left_;  // sessions that have left, and still have listens
    std::size_t orphanedBytes_ = 0;
    std::vector<Receiver*> found_;  // in one turn of a match
    std::uint64_t changes_ = 0;     // of what matches may find
    // Of `lastMatch`, whose result is `found_`.
    const Space* lastSpace_ = nullptr;  // null: none
    bool lastFollows_ = false;          // the sender
    std::uint64_t lastChanges_ = 0;
    std::vector<std::uint8_t> lastSubject_;
    std::uint64_t newestSpace_ = 0;  // its number
    std::uint64_t matchNumber_ = 0;  // of the newest match
};

/// One peer after its init. Owned by the router.
class Router::Session {
  public:
    [[nodiscard]] bool isIn(std::string_view service, std::string_view network) const;

    /// Memory of its listens in bytes, an upper estimate.
    [[nodiscard]] std::size_t listenBytes() const { return listenBytes_; }

    /// The number of its receiver; it must not have left.
    [[nodiscard]] std::uint64_t number() const { return receiver_->number(); }
    /// The number of its space, which no other one has had.
    [[nodiscard]] std::uint64_t space() const;
    [[nodiscard]] const std::string& service() const;
    [[nodiscard]] const std::string& network() const;
    /// Listens in force, each counted as often as it was made.
    [[nodiscard]] std::uint64_t listens() const { return listenCount_; }
    /// Distinct subjects with wildcards; of one that follows all its subjects.
    [[nodiscard]] std::size_t patterns() const;

    /// Whether it has begun to follow, and still has listens from that time.
    [[nodiscard]] bool follows() const;
    /// Whether it is told the interest of its space.
    [[nodiscard]] bool isTold() const { return isTold_; }

  private:
    friend class Router;
    Session(Space& space, Receiver& receiver, std::uint64_t newestMatch);
    [[nodiscard]] std::size_t distinctListens() const;

    Space& space_;
    Receiver* receiver_;  // null once it has left
    Sessions::iterator place_;
    const std::uint64_t joinedAfter_;  // the newest match then: it and older ones do not find it
    std::uint64_t listenCount_ = 0;
    std::uint64_t lastMatch_ = 0;  // the newest match that has found it
    bool isTold_ = false;
    std::size_t listenBytes_ = 0;
    std::size_t patterns_ = 0;  // of `listens_`
    Listens listens_;           // in the tree of the space
    std::shared_ptr<OwnTree> own_;
};

/// The way of one message to the sessions that match it, its sender included, in turns of bounded
/// work. Between turns everything may change: who listens only then may be found or not, who joins
/// only then is not. The router must outlive it.
class Router::Match {
  public:
    /// Of a message of `from`, which may leave only after the end of this object.
    Match(Router& router, const Session& from, SubjectView subject);
    Match(const Match&) = delete;
    Match& operator=(const Match&) = delete;
    ~Match();

    /// Goes on by up to `steps` steps, each of some 10 to 500 ns. Returns the receivers that it has
    /// found, each once in all turns, of those that had joined before it began; valid until the
    /// next call of any function of the router. `subject` must have the same bytes in every turn.
    /// Throws `std::bad_alloc`.
    [[nodiscard]] std::span<Receiver* const> advance(SubjectView subject, std::size_t steps);

    [[nodiscard]] bool isDone() const { return isDone_; }
    /// Whether any turn has found somebody.
    [[nodiscard]] bool hasFound() const { return hasFound_; }
    /// Bytes of memory besides this object.
    [[nodiscard]] std::size_t memory() const;

  private:
    struct OwnSearch;

    void find(Session& session);
    void searchOwn(SubjectView subject, std::size_t& steps);
    bool searchTree(SubjectView subject, std::size_t& steps);
    bool enterNext(SubjectView subject);
    void remember(SubjectView subject);

    Router& router_;
    Space& space_;
    const SubjectMatch how_;
    const bool isFromFollower_;
    const std::uint64_t number_;
    SubjectTree<Session>::Search shared_;
    std::unique_ptr<OwnSearch> own_;  // the tree being searched
    std::uint64_t lastOwn_ = 0;       // the number of the last one
    bool isFirstTurn_ = true;
    bool hasFound_ = false;
    bool isDone_ = false;
    std::unordered_set<Receiver*> seen_;  // found in earlier turns
};

/// Finds the listens by which a message would reach sessions of its space. Between calls everything
/// may change. The session that asks must outlive it.
class Router::Trace {
  public:
    struct Hit {
        std::uint64_t session;  ///< `Receiver::number`
        SubjectView subject;    ///< of the listen, valid until the router changes
        std::uint32_t count;    ///< how often it was made
    };

    /// Of a message of `from`.
    Trace(const Session& from, SubjectView subject);
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;
    ~Trace();

    /// The next one; nothing at the end, or when `steps`, which are lowered by those made, are used
    /// up. `subject` must have the same bytes in every call.
    [[nodiscard]] std::optional<Hit> next(SubjectView subject, std::size_t& steps);
    [[nodiscard]] bool isDone() const { return isDone_; }

  private:
    std::optional<Hit> search(SubjectView subject, std::size_t& steps);
    bool enterNext();

    Space& space_;
    const SubjectMatch how_;
    const bool isFromFollower_;
    std::shared_ptr<OwnTree> own_;  // the tree being searched; null: that of the space
    std::optional<SubjectTree<Session>::Search> search_;
    std::uint64_t lastOwn_ = 0;  // the number of the last one
    bool isDone_ = false;
};

}  // namespace kvx::rvd
