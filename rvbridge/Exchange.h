#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "rv/message/SubjectTree.h"
#include "rv/message/SubjectView.h"
#include "rvbridge/Frame.h"

namespace kvx::bridge {

struct ControlMessage;

/// A point or a span of time of one host's monotonic clock.
using Microseconds = std::int64_t;

/// Who a bridge is.
struct BridgeIdentity {
    std::string host;         ///< 1 to 255 bytes
    std::uint64_t epoch = 0;  ///< random, new with each start
    std::string since;        ///< wall time of the start, as shown; at most 64 bytes
};

/// What is known of another host.
struct HostState {
    std::string name;
    std::uint64_t epoch = 0;
    bool up = false;
    std::string since;                      ///< as it says
    std::optional<Microseconds> roundTrip;  ///< the latest
    std::size_t subjects = 0;               ///< that it listens to, as far as we know
    bool complete = false;                  ///< we know them all
};

/// What an `Exchange` does. None of these may call back into it.
class ExchangeActions {
  public:
    virtual ~ExchangeActions() = default;
    /// Publishes a control frame's payload to every bridge of the space (`number`: among these,
    /// from 1), or to those of one name (0).
    virtual void sendToAll(std::uint64_t number, Bytes control) = 0;
    virtual void sendTo(std::string_view host, Bytes control) = 0;
    /// The first other host listens to `subject`: listen to it at the daemon. None does any more:
    /// cancel it.
    virtual void listen(SubjectView subject) = 0;
    virtual void cancel(SubjectView subject) = 0;
    /// A host has joined, or another start of it; it has left.
    virtual void hostUp(const HostState& host) = 0;
    virtual void hostDown(const HostState& host) = 0;
    /// Another bridge has our name or our daemon: this one must end. `reason` is one line. Nothing
    /// is sent any more.
    virtual void refused(const std::string& reason) = 0;
    /// Once: the interest of the hosts that could be heard is exchanged.
    virtual void ready() = 0;
    /// That host may have missed messages of ours with a sequence above `after`: marks are to be
    /// published on their subjects, and then `marked` is to be called.
    virtual void marksWanted(std::string_view host, std::uint64_t after) = 0;
};

/// The exchange of interest between the bridges of one space, seen from one of them: events in,
/// actions out. Control messages may be lost or come late; per sender they come in order. At rest
/// every bridge knows what every living host listens to, and listens at its daemon to the union.
///
/// Interest of the daemon (`beginSnapshot`, `add`, `remove`, `complete`) is told to the others with
/// the next `flush`. The owner applies its export and import patterns before. Before it tells an
/// addition here, it subscribes at the engine; it calls `flush` before it publishes any message.
///
/// Times are of the caller's own clock and never compared with those of others. Loop thread only.
class Exchange {
  public:
    static constexpr Microseconds kSecond = 1'000'000;
    static constexpr Microseconds kBeat = 2 * kSecond;
    static constexpr Microseconds kSilence = 10 * kSecond;      ///< then a host is forgotten
    static constexpr Microseconds kSettle = kSecond;            ///< from the start to ready
    static constexpr Microseconds kReadyAtMost = 15 * kSecond;  ///< whoever is incomplete then
    static constexpr std::size_t kMaxControl = 65'536;          ///< bytes of a control payload
    static constexpr std::size_t kMaxDead = 1'000;              ///< hosts kept for `eachHost`
    static constexpr std::size_t kMaxHosts = 4'000;             ///< living; others are ignored
    static constexpr std::size_t kMaxSubjectsOfHost =
        1'048'576;                                          ///< what has more stays incomplete
    static constexpr std::size_t kMaxSubjects = 4'194'304;  ///< of all other hosts, likewise

    /// `actions` must outlive this object.
    Exchange(BridgeIdentity identity, ExchangeActions& actions);
    ~Exchange();
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    /// Bytes of a control payload, where the engine takes less than `kMaxControl`; not below 2,048.
    void setLimit(std::size_t bytes);

    /// What the daemon's clients listen to. Until `complete` after a `beginSnapshot` what was known
    /// before stays; then what has not been added since is removed. Reserved subjects ("_RV",
    /// "_RVD") are ignored.
    void beginSnapshot(std::string_view daemon);
    void add(SubjectView subject);
    void remove(SubjectView subject);
    void complete();

    /// Both sides are up and the first snapshot is complete: joins the others. Once.
    void start(Microseconds now);
    /// The engine is connected again: beats with the next `tick`.
    void reconnected(Microseconds now) { beatAt_ = now; }
    /// What `ExchangeActions::marksWanted` has asked for is published.
    void marked(std::string_view host, std::uint64_t after);
    /// Tells the changes since the last flush.
    void flush();
    /// What time brings: to be called every 20 to 100 ms.
    void tick(Microseconds now);
    /// A control frame; those of this bridge are ignored.
    void receive(Microseconds now, const Frame& frame);
    /// Leaves: the others forget this host's interest at once. Nothing is sent any more.
    void stop();

    /// Calls `visit(std::string_view host)` for each living other host that wants a
    /// message on `subject`, as its daemon would match it; possibly more than once.
    template <class Visit>
    void eachWanting(SubjectView subject, Visit&& visit) const {
        others_.match(subject, deliveryMatch(subject), [&](Host& host) { visit(host.state.name); });
    }

    /// Whether that bridge is known to have begun the key epoch after we had subscribed to what
    /// reaches `subject` (`ReceiverSink::heardAllOf`).
    [[nodiscard]] bool heardAllOf(std::string_view host, std::uint64_t epoch,
                                  std::uint32_t keyEpoch, SubjectView subject) const;

    /// What a frame to one host says of how much we know of it: its epoch and its last change that
    /// we know, in one number. 0 for a host that is not there.
    [[nodiscard]] std::uint64_t knowledgeOf(std::string_view host) const;
    /// Whether who says so in a frame to us knew that we listen to `subject`.
    [[nodiscard]] bool wasKnown(std::uint64_t knowledge, SubjectView subject) const;

    /// Calls `visit(const HostState&)` for all living hosts by name, then for the dead ones, which
    /// keep their last state.
    template <class Visit>
    void eachHost(Visit&& visit) const {
        for (const auto& [name, host] : hosts_) visit(host->state);
        for (const Dead& dead : dead_) visit(dead.state);
    }
    [[nodiscard]] const BridgeIdentity& identity() const { return identity_; }
    [[nodiscard]] bool isReady() const { return stage_ == Stage::Ready; }
    /// Subjects of this host's own clients.
    [[nodiscard]] std::size_t ownSubjects() const { return own_.size(); }

  private:
    enum class Stage : std::uint8_t { Silent, Joining, Ready, Ended };
    struct Own {
        std::uint64_t toldIn = 0;  // number of the change
        bool isOld = false;        // not yet confirmed by the snapshot in progress
    };
    // A pong: what its sender knew of us, and its newest key epoch then.
    struct Ack {
        std::uint64_t change = 0;
        std::uint32_t keyEpoch = 0;
    };
    // How far a host's control messages to all have come without a gap. Where one is missing,
    // messages of the same time may be, and marks of their subjects are asked for.
    struct Heard {
        static constexpr std::size_t kBeats = 4;
        bool isKnown = false;      // a message of this epoch came
        std::uint64_t number = 0;  // the last one's; 0: all were to us alone
        std::array<std::uint64_t, kBeats>
            sequences{};                    // that the last beats have said, newest first
        std::optional<Microseconds> askAt;  // when to ask for marks
        std::uint64_t askAfter = 0;
        bool isAsked = false;  // and nothing was missing since
    };
    using Subjects = std::unordered_set<std::string>;  // encoded
    struct Host {
        HostState state;
        Heard heard;
        Subjects subjects;
        std::uint64_t change = 0;  // the last one known
        bool wasComplete = false;  // in this epoch
        std::uint64_t digest = 0;  // of `subjects`
        Microseconds heardAt = 0;
        std::optional<Microseconds> askAt;  // incomplete: when to ask next
        Subjects incoming;                  // of the snapshot whose parts are coming
        std::uint64_t incomingChange = 0;
        std::uint32_t incomingPart = 0;  // the next one
        std::optional<Microseconds> pingedAt;
        std::deque<Ack> acks;  // oldest first
    };

    [[nodiscard]] bool isToldBy(std::uint64_t change, SubjectView subject) const;
    [[nodiscard]] bool isTalking() const { return stage_ == Stage::Joining || isReady(); }
    Microseconds jitter(Microseconds atLeast, Microseconds atMost);

    struct Dead {
        HostState state;
        Heard heard;  // of its epoch: it may come back
    };

    void sendToAll(Bytes control) { actions_.sendToAll(++told_, control); }
    std::uint64_t pend(std::uint8_t what, SubjectView subject);
    void drop(std::unordered_map<std::string, Own>::iterator own);
    void sendState(std::uint8_t op);
    void sendSnapshot(Microseconds now);
    void wantSnapshot(Microseconds now, std::string_view asker);
    void pingSoon();
    void pingSome(Microseconds now);
    void askAndForget(Microseconds now);

    Host* hostOf(Microseconds now, const Frame& frame, const ControlMessage& said);
    void judgeRival(const Frame& frame, const ControlMessage& said, bool sameName);
    void obeyTaken(const Frame& frame, const ControlMessage& said);
    void takeNumber(Microseconds now, Heard& heard, const Frame& frame, bool isBeat);
    void takeState(Microseconds now, Host& host, const ControlMessage& said);
    void takeChange(Microseconds now, Host& host, const ControlMessage& said);
    void takeSnapshot(Microseconds now, Host& host, const ControlMessage& said);
    void takePong(Microseconds now, Host& host, const Frame& frame,
                  const ControlMessage& said) const;
    void setComplete(Host& host, std::uint64_t change);
    void setIncomplete(Microseconds now, Host& host);
    [[nodiscard]] bool insert(Host& host, SubjectView subject);
    void erase(Host& host, SubjectView subject);
    void forget(Host& host);

    BridgeIdentity identity_;
    ExchangeActions& actions_;
    Stage stage_ = Stage::Silent;
    std::minstd_rand random_;
    std::size_t limit_ = kMaxControl;

    // Our own host.
    std::string daemon_;
    std::unordered_map<std::string, Own> own_;
    SubjectTree<Own> ownPatterns_;  // those with wildcards
    std::uint64_t told_ = 0;        // control messages to all
    std::uint64_t change_ = 0;      // told last
    std::uint64_t digest_ = 0;
    std::vector<std::uint8_t> pending_;  // the next change, as it will be sent; empty: none

    // The others.
    SubjectTree<Host> mutable others_;
    std::map<std::string, std::unique_ptr<Host>, std::less<>> hosts_;
    std::size_t subjects_ = 0;  // of all hosts
    std::deque<Dead> dead_;     // oldest first

    // What is due when.
    Microseconds startedAt_ = 0;
    Microseconds tickedAt_ = 0;
    Microseconds beatAt_ = 0;
    std::optional<Microseconds> pingAt_;  // before the next beat
    std::optional<Microseconds> snapshotAt_;
    Microseconds snapshotSentAt_ = 0;
    std::set<std::string, std::less<>> askers_;
    std::string pinged_;  // the host pinged last
};

}  // namespace kvx::bridge
