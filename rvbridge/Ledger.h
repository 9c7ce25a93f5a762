#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "rv/message/SubjectHash.h"
#include "rv/message/SubjectTree.h"
#include "rv/message/SubjectView.h"
#include "rv/wire/Buffer.h"
#include "rvbridge/Frame.h"

/// What two bridges know of the messages between them. Every message that a bridge publishes has a
/// number on its subject, and all subscribers of the engine see every number: who misses one has
/// lost it. Loop thread only.
namespace kvx::bridge {

/// A table of bounded size by text; the entry that was used least recently leaves. References stay
/// valid until their entry leaves.
template <class Value>
class RecentTable {
  public:
    RecentTable(std::uint64_t seed, std::size_t limit) : index_(0, Hasher(seed)), limit_(limit) {}

    /// Null when absent; else it is the latest used.
    Value* find(std::string_view key) {
        const auto found = index_.find(key);
        if (found == index_.end()) return nullptr;
        entries_.splice(entries_.begin(), entries_, found->second);
        return &found->second->second;
    }
    /// Adds an absent key.
    Value& add(std::string_view key, Value value) {
        if (isFull()) erase(std::prev(entries_.end()));
        entries_.emplace_front(std::string(key), std::move(value));
        index_.emplace(entries_.front().first, entries_.begin());
        return entries_.front().second;
    }
    void erase(std::string_view key) {
        const auto found = index_.find(key);
        if (found != index_.end()) erase(found->second);
    }
    template <class Condition>
    void eraseIf(Condition&& condition) {
        for (auto at = entries_.begin(); at != entries_.end();) {
            const auto here = at++;
            if (condition(here->first, here->second)) erase(here);
        }
    }
    /// Latest first: `visit(const std::string& key, Value&)`.
    template <class Visit>
    void each(Visit&& visit) {
        for (auto& [key, value] : entries_) visit(key, value);
    }
    [[nodiscard]] std::size_t size() const { return index_.size(); }
    /// Whether the next `add` makes `oldest` leave.
    [[nodiscard]] bool isFull() const { return index_.size() >= limit_; }
    [[nodiscard]] auto& oldest() { return entries_.back(); }

  private:
    using Entries = std::list<std::pair<const std::string, Value>>;
    struct Hasher : SubjectHash {
        using SubjectHash::SubjectHash;
        std::size_t operator()(std::string_view text) const {
            return ofBytes(text.data(), text.size());
        }
    };
    void erase(typename Entries::iterator entry) {
        index_.erase(entry->first);
        entries_.erase(entry);
    }

    Entries entries_;  // latest used first
    std::unordered_map<std::string_view, typename Entries::iterator, Hasher> index_;
    std::size_t limit_;
};

/// Numbers what a bridge sends in one space.
class Sender {
  public:
    static constexpr std::size_t kMaxSubjects = 65'536;

    /// `seed`: random, of the hashes.
    explicit Sender(std::uint64_t seed, std::size_t maxSubjects = kMaxSubjects);

    /// The number of the next message on this subject, which is herewith used.
    [[nodiscard]] MessageNumber next(SubjectView subject);

    /// The message that has just got its number is not sent: its receivers are told by the mark of
    /// the subject (`marksOfDropped`), which must be sent before anything else on this subject.
    void dropped(SubjectView subject, LossCause cause);

    /// Calls `visit(SubjectView, const MessageNumber& next, LossCause)` for the mark of every
    /// subject in the table that matches `pattern` (messages on wildcard subjects always do, since
    /// every bridge gets them). After a fault the marks let receivers count what was lost at the
    /// end; `cause` is that of subjects without a drop of their own. `visit` must not call back.
    template <class Visit>
    void marks(SubjectView pattern, LossCause cause, Visit&& visit) {
        table_.each([&](const std::string& key, Entry& entry) {
            const SubjectView subject = SubjectView::trusted(key.data());
            if (!isReached(pattern, subject)) return;
            visit(subject, numberOf(entry), entry.drops == 0 ? cause : entry.cause);
            settle(entry);
        });
    }

    [[nodiscard]] bool hasDropped() const { return dropped_ != 0; }
    /// The same for the subjects of which messages were dropped since their last mark.
    template <class Visit>
    void marksOfDropped(Visit&& visit) {
        if (dropped_ == 0) return;
        table_.each([&](const std::string& key, Entry& entry) {
            if (entry.drops == 0) return;
            visit(SubjectView::trusted(key.data()), numberOf(entry), entry.cause);
            settle(entry);
        });
    }

    /// The key epoch given last. It grows by one with each entry of the table.
    [[nodiscard]] std::uint32_t keyEpoch() const { return keyEpoch_; }

  private:
    struct Entry {
        std::uint32_t keyEpoch = 0;
        std::uint64_t next = 1;
        std::uint64_t drops = 0;  // since the last mark
        LossCause cause = LossCause::Engine;
    };
    static bool isReached(SubjectView pattern, SubjectView subject);
    [[nodiscard]] MessageNumber numberOf(const Entry& entry) const {
        return {sequence_ + 1, entry.keyEpoch, entry.next};
    }
    void settle(Entry& entry);

    RecentTable<Entry> table_;
    std::uint64_t sequence_ = 0;  // used last
    std::uint32_t keyEpoch_ = 0;
    std::size_t dropped_ = 0;  // entries with drops
};

using Losses = std::array<std::uint64_t, kLossCauses>;  ///< messages, by `LossCause`

/// Who gets what a `Receiver` finds. Must not call back into it.
class ReceiverSink {
  public:
    virtual ~ReceiverSink() = default;
    /// A message in its order, once.
    virtual void message(SubjectView subject, Bytes message) = 0;
    /// Messages of `host` on `subject` are lost: those before the next `message` on it.
    virtual void lost(std::string_view host, SubjectView subject, std::uint64_t messages,
                      LossCause cause) = 0;
    /// Asked for a frame on a subject of which nothing is known: whether we were subscribed since
    /// before its key epoch began (`Exchange::heardAllOf`), so that its numbers from 1 on are ours.
    virtual bool heardAllOf(const Frame& frame, SubjectView subject) = 0;
    /// Else asked, for who does not know it when the frame is taken: its `mayBegin`.
    virtual bool mayBegin(const Frame& frame, SubjectView /*subject*/) { return frame.mayBegin; }
};

/// Takes the frames of all other bridges of one space: leaves out second copies, counts gaps, puts
/// parts together.
///
/// What is expected on a subject is known from the first frame seen on it, for as long as we are
/// subscribed (`forget`), and within a bounded table. Memory of unfinished messages grows with the
/// bytes received; the oldest is given up when it is too much.
class Receiver {
  public:
    static constexpr std::size_t kMaxSubjects = 262'144;        ///< of all hosts together
    static constexpr std::size_t kMaxHosts = 4'096;             ///< names and epochs
    static constexpr std::size_t kMaxUnfinished = 134'217'728;  ///< bytes, of all hosts together
    static constexpr std::size_t kMaxForgotten = 65'536;        ///< patterns

    /// `seed`: random, of the hashes. `sink` must outlive this object.
    Receiver(std::uint64_t seed, ReceiverSink& sink, std::size_t maxSubjects = kMaxSubjects,
             std::size_t maxUnfinished = kMaxUnfinished);

    /// A data or part frame of another bridge that came on `subject`.
    void take(const Frame& frame, SubjectView subject);

    /// `EngineGone` or `EngineSlow` at our end: the cause of gaps on subjects of which nothing has
    /// come since.
    void fault(LossCause cause);

    /// Our subscription to `pattern` ends: what is expected on its subjects is unknown. Frames that
    /// still come by it must not be taken. Constant time, but once in `kMaxForgotten` calls.
    void forget(SubjectView pattern);

    /// That bridge has ended: its unfinished message is given up.
    void hostDown(std::string_view host, std::uint64_t epoch);

    /// Counted since the start, of all epochs of a host still in the table.
    [[nodiscard]] Losses losses(std::string_view host);
    struct Received {
        std::uint64_t messages = 0;
        std::uint64_t bytes = 0;
    };
    [[nodiscard]] Received received(std::string_view host);

    [[nodiscard]] std::uint64_t secondCopies() const { return secondCopies_; }
    [[nodiscard]] std::size_t unfinishedBytes() const { return unfinishedBytes_; }

  private:
    struct Peer {
        std::uint32_t id = 0;  // in the keys of `expected_`
        std::string host;
        std::uint64_t epoch = 0;
        std::uint64_t last = 0;       // sequence seen last
        std::uint32_t forgotten = 0;  // newest key epoch of what has left `expected_`
        Losses losses{};
        Received received;
        // The message with sequence `last`, of which parts are still to come.
        std::string subject;  // empty: none
        wire::Buffer bytes;
        std::uint32_t total = 0;
        std::uint64_t age = 0;
        bool isUncounted = false;  // a subscription to the subject has ended since it began
    };
    struct Expected {
        std::uint32_t keyEpoch = 0;
        std::uint64_t number = 0;
        std::uint64_t fault = 0;    // `faults_` when last seen
        std::uint64_t forgets = 0;  // `forgets_` then
    };

    Peer& peerOf(std::string_view host, std::uint64_t epoch);
    const std::string& keyOf(std::uint32_t peer, SubjectView subject);
    void takeData(Peer& peer, const Frame& frame, SubjectView subject);
    void takePart(Peer& peer, const Frame& frame, SubjectView subject);
    void startParts(Peer& peer, const Frame& frame, SubjectView subject);
    void appendPart(Peer& peer, const Frame& frame);
    bool note(Peer& peer, const Frame& frame, SubjectView subject, const MessageNumber& number,
              std::uint64_t count);
    void deliver(Peer& peer, SubjectView subject, Bytes message);
    void lose(Peer& peer, SubjectView subject, std::uint64_t messages, LossCause cause);
    void giveUp(Peer& peer);
    Expected* find(const std::string& key, SubjectView subject);
    [[nodiscard]] bool isForgotten(const Expected& expected, SubjectView subject) const;
    void dropForgotten();
    void drop(const std::string& key, const Expected& expected);
    wire::Buffer release(Peer& peer);
    void makeRoom(const Peer& keep, std::size_t more);
    [[nodiscard]] LossCause causeSince(std::uint64_t fault) const;

    ReceiverSink& sink_;
    RecentTable<Peer> peers_;         // by epoch and host
    Peer* lastPeer_ = nullptr;        // the latest used
    RecentTable<Expected> expected_;  // by the peer's id and the subject
    // Patterns of which the subjects that have not been seen since are forgotten: `forgets_` then.
    std::unordered_map<std::string, std::uint64_t> forgotten_;
    std::optional<SubjectTree<std::uint64_t>> mutable forgottenTree_{std::in_place};  // the same
    std::uint64_t forgets_ = 0;
    std::unordered_map<std::uint32_t, Peer*> byId_;
    std::uint32_t nextId_ = 1;
    std::string key_;                            // the last one made, here to keep its memory
    std::map<std::uint64_t, Peer*> unfinished_;  // by age
    std::uint64_t nextAge_ = 1;
    std::size_t unfinishedBytes_ = 0;
    const std::size_t maxUnfinished_;
    std::uint64_t secondCopies_ = 0;
    std::uint64_t faults_ = 0;
    std::uint64_t lastGone_ = 0;  // the number of the last fault of this kind
    std::uint64_t lastSlow_ = 0;
};

}  // namespace kvx::bridge
