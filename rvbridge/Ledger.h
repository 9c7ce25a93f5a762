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
    /// The same, but it does not count as used.
    Value* peek(std::string_view key) {
        const auto found = index_.find(key);
        return found == index_.end() ? nullptr : &found->second->second;
    }
    void erase(std::string_view key) {
        const auto found = index_.find(key);
        if (found != index_.end()) erase(found->second);
    }
    /// Latest first: `visit(const std::string& key, Value&)`, as long as it returns true.
    template <class Visit>
    void each(Visit&& visit) {
        for (auto& [key, value] : entries_) {
            if (!visit(key, value)) return;
        }
    }
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

/// Numbers what a bridge sends in one space, and knows which subjects need a mark: a frame with the
/// number of what comes next, by which receivers find what was lost at the end.
class Sender {
  public:
    static constexpr std::size_t kMaxSubjects = 65'536;

    /// `seed`: random, of the hashes.
    explicit Sender(std::uint64_t seed, std::size_t maxSubjects = kMaxSubjects);

    /// The number of the next message on this subject, which is herewith used.
    [[nodiscard]] MessageNumber next(SubjectView subject);
    /// What has been used: the sequence of the last message and the newest key epoch.
    [[nodiscard]] MessageNumber last() const { return {sequence_, keyEpoch_, 0}; }

    /// The message that has just got its number is not sent: the mark of its subject must be,
    /// before anything else on it. That mark is the next one taken.
    void dropped(SubjectView subject, LossCause cause);
    /// The same for so many messages, which have no number yet.
    void skip(SubjectView subject, std::uint64_t messages, LossCause cause);
    [[nodiscard]] bool hasDropped() const { return dropped_ != 0; }

    /// The subjects need marks whose last message has a sequence above `after`.
    void wantMarks(std::uint64_t after);
    /// The subjects need marks whose last message came between the last two calls. To be called
    /// with each beat.
    void wantMarksOfQuiet();
    /// The connection to the engine was lost: that is the cause of what is missing until now.
    void engineWasGone() { goneUntil_ = sequence_; }

    /// Takes one mark that is needed: `visit(SubjectView, const MessageNumber& next, LossCause)`.
    /// False when there is none.
    template <class Visit>
    bool takeMark(Visit&& visit) {
        if (due_.empty()) return false;
        const std::string subject = std::move(due_.begin()->second);
        Entry& entry = *table_.peek(subject);
        const LossCause cause = causeOf(entry);
        settle(entry);
        visit(SubjectView::trusted(subject.data()),
              MessageNumber{sequence_ + 1, entry.keyEpoch, entry.next}, cause);
        return true;
    }
    [[nodiscard]] bool needsMarks() const { return !due_.empty(); }

  private:
    struct Entry {
        std::uint32_t keyEpoch = 0;
        std::uint64_t next = 1;
        std::uint64_t sequence = 0;  // of its last message
        std::int64_t due = 0;        // its place in `due_`; 0: none
        bool isDropped = false;      // since the last mark
        LossCause cause = LossCause::Engine;
    };
    [[nodiscard]] LossCause causeOf(const Entry& entry) const;
    void wantMarks(std::uint64_t after, std::uint64_t upTo);
    void putDue(std::int64_t place, std::string_view subject, Entry& entry);
    void settle(Entry& entry);

    RecentTable<Entry> table_;    // the order of use is that of `sequence`
    std::uint64_t sequence_ = 0;  // used last
    std::uint32_t keyEpoch_ = 0;
    std::map<std::int64_t, std::string> due_;  // subjects in the table, the next mark first
    std::int64_t dueLast_ = 0;                 // the highest place given
    std::int64_t dueFirst_ = 0;                // and the lowest
    std::size_t dropped_ = 0;                  // entries with `isDropped`
    std::uint64_t quietFrom_ = 0;  // `sequence_` two calls of `wantMarksOfQuiet` ago, and one
    std::uint64_t quietTo_ = 0;
    std::uint64_t goneUntil_ = 0;
};

struct Traffic {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
};
using Losses = std::array<std::uint64_t, kBridgeLossCauses>;  ///< messages, by `LossCause`

/// Who gets what a `Receiver` finds. Must not call back into it.
class ReceiverSink {
  public:
    virtual ~ReceiverSink() = default;
    /// A message in its order, once. Returns false when there is no room for it: it counts as lost
    /// (`QueueFull`), without a call of `lost`.
    virtual bool message(SubjectView subject, Bytes message) = 0;
    /// Messages of `host` on `subject` are lost: those before the next `message` on it.
    virtual void lost(std::string_view host, SubjectView subject, std::uint64_t messages,
                      LossCause cause) = 0;
    /// Asked for a frame on a subject of which nothing is known: whether we were subscribed since
    /// before its key epoch began (`Exchange::heardAllOf`), so that its numbers from 1 on are ours.
    virtual bool heardAllOf(const Frame& frame, SubjectView subject) = 0;
    /// Else asked: whether what is expected on the subject may be known by this frame, since
    /// whatever comes on it comes to us.
    virtual bool mayBegin(const Frame& frame, SubjectView subject) = 0;
    /// Whether one of our subscriptions that matches `subject` began with a change
    /// (`Receiver::subscriptionsChange`) not after this one.
    virtual bool isSubscribedSince(std::uint64_t change, SubjectView subject) = 0;
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

    /// `seed`: random, of the hashes. `sink` must outlive this object.
    Receiver(std::uint64_t seed, ReceiverSink& sink, std::size_t maxSubjects = kMaxSubjects,
             std::size_t maxUnfinished = kMaxUnfinished);

    /// A data or part frame of another bridge that came on `subject`.
    void take(const Frame& frame, SubjectView subject);

    /// `EngineGone`, `EngineSlow` or `QueueFull` at our end: the cause of gaps on subjects of which
    /// nothing has come since.
    void fault(LossCause cause);

    /// Our subscription to `pattern` has ended: what is expected on its subjects is unknown, unless
    /// another one was there all the time (`ReceiverSink::isSubscribedSince`). Frames that still
    /// come by it must not be taken. Constant time.
    void forget(SubjectView pattern);
    /// A subscription of ours begins, or ends: the number of the change.
    std::uint64_t subscriptionsChange() { return ++changes_; }

    /// That bridge has ended: its unfinished message is given up.
    void hostDown(std::string_view host, std::uint64_t epoch);

    /// Calls `visit(const std::string& host, const Traffic&, const Losses&)`, counted since the
    /// start, for each epoch of a host still in the table.
    template <class Visit>
    void eachPeer(Visit&& visit) {
        peers_.each([&](const std::string&, const Peer& peer) {
            visit(peer.host, peer.received, peer.losses);
            return true;
        });
    }

    [[nodiscard]] std::size_t unfinishedBytes() const { return unfinishedBytes_; }

  private:
    struct Peer {
        std::uint32_t id = 0;  // in the keys of `expected_`
        std::string host;
        std::uint64_t epoch = 0;
        std::uint64_t last = 0;       // sequence seen last
        bool isFromEvicted = false;   // it may have been in the table before
        std::uint32_t forgotten = 0;  // newest key epoch of what has left `expected_`
        Losses losses{};
        Traffic received;
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
        std::uint64_t fault = 0;   // `faults_` when last seen
        std::uint64_t change = 0;  // `changes_` then
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
    void drop(const std::string& key, const Expected& expected);
    wire::Buffer release(Peer& peer);
    void makeRoom(const Peer& keep, std::size_t more);
    [[nodiscard]] LossCause causeSince(std::uint64_t fault) const;

    ReceiverSink& sink_;
    RecentTable<Peer> peers_;         // by epoch and host
    Peer* lastPeer_ = nullptr;        // the latest used
    RecentTable<Expected> expected_;  // by the peer's id and the subject
    std::uint64_t changes_ = 0;       // of our subscriptions
    std::unordered_map<std::uint32_t, Peer*> byId_;
    std::uint32_t nextId_ = 1;
    bool hasEvicted_ = false;                    // a peer, ever
    std::string key_;                            // the last one made, here to keep its memory
    std::map<std::uint64_t, Peer*> unfinished_;  // by age
    std::uint64_t nextAge_ = 1;
    std::size_t unfinishedBytes_ = 0;
    const std::size_t maxUnfinished_;
    std::uint64_t faults_ = 0;
    std::array<std::uint64_t, kBridgeLossCauses>
        lastFault_{};  // the number of the last fault, by its cause
};

}  // namespace kvx::bridge
