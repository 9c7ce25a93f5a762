// Two numbers count each message. The sequence counts all that a bridge sends in a space: a frame
// whose messages are not newer than what has been seen is a second copy, which the engine delivers
// when several of our subscriptions match, or came by another way too late to be in order. The
// number counts those on one subject, and as the engine gives every message on a subject to each of
// its subscribers, a gap in the numbers is a loss.
//
// A number is expected since the first frame seen on the subject. Where the sender began the
// subject anew (another key epoch) while we were subscribed, its numbers from 1 on are ours.
// The parts of a message follow one another, so that a sender has at most one unfinished message:
// anything newer from it means that the rest will not come. A message counts as seen with its first
// part; when it is given up it becomes a loss at once.

#include "rvbridge/Ledger.h"

#include <algorithm>
#include <cstring>

namespace kvx::bridge {

namespace {

// Key epochs grow, and wrap.
bool isAfter(std::uint32_t keyEpoch, std::uint32_t other) {
    return static_cast<std::int32_t>(keyEpoch - other) > 0;
}

constexpr std::size_t kIdBytes = sizeof(std::uint32_t);

// The key of a peer.
std::string peerKey(std::string_view host, std::uint64_t epoch) {
    std::string key(sizeof epoch, '\0');
    std::memcpy(key.data(), &epoch, sizeof epoch);
    return key.append(host);
}

// Nobody sends so many; a number beyond it is forged, and would make all that follow second copies.
constexpr std::uint64_t kLongestLeap = std::uint64_t{1} << 40U;

}  // namespace

Sender::Sender(std::uint64_t seed, std::size_t maxSubjects) : table_(seed, maxSubjects) {}

MessageNumber Sender::next(SubjectView subject) {
    Entry* entry = table_.find(subject.encoded());
    if (entry == nullptr) {
        if (table_.isFull()) settle(table_.oldest().second);
        entry = &table_.add(subject.encoded(), Entry{++keyEpoch_});
    }
    entry->sequence = ++sequence_;
    return {sequence_, entry->keyEpoch, entry->next++};
}

void Sender::dropped(SubjectView subject, LossCause cause) {
    Entry* const entry = table_.peek(subject.encoded());
    if (entry == nullptr) return;
    entry->cause = cause;
    if (std::exchange(entry->isDropped, true)) return;
    ++dropped_;
    putDue(--dueFirst_, subject.encoded(), *entry);
}

void Sender::skip(SubjectView subject, std::uint64_t messages, LossCause cause) {
    if (messages == 0) return;
    (void)next(subject);
    Entry& entry = *table_.peek(subject.encoded());
    sequence_ += messages - 1;
    entry.sequence = sequence_;
    entry.next += messages - 1;
    dropped(subject, cause);
}

void Sender::putDue(std::int64_t place, std::string_view subject, Entry& entry) {
    if (entry.due != 0) due_.erase(entry.due);
    entry.due = place;
    due_.emplace(place, subject);
}

void Sender::wantMarks(std::uint64_t after) {
    wantMarks(after, sequence_);
}

void Sender::wantMarksOfQuiet() {
    wantMarks(quietFrom_, quietTo_);
    quietFrom_ = std::exchange(quietTo_, sequence_);
}

void Sender::wantMarks(std::uint64_t after, std::uint64_t upTo) {
    if (after >= upTo) return;
    table_.each([&](const std::string& key, Entry& entry) {
        if (entry.sequence <= after) return false;
        if (entry.sequence <= upTo && entry.due == 0) putDue(++dueLast_, key, entry);
        return true;
    });
}

LossCause Sender::causeOf(const Entry& entry) const {
    if (entry.isDropped) return entry.cause;
    return entry.sequence <= goneUntil_ ? LossCause::EngineGone : LossCause::Engine;
}

void Sender::settle(Entry& entry) {
    if (entry.due != 0) due_.erase(std::exchange(entry.due, 0));
    if (std::exchange(entry.isDropped, false)) --dropped_;
}

Receiver::Receiver(std::uint64_t seed, ReceiverSink& sink, std::size_t maxSubjects,
                   std::size_t maxUnfinished)
    : sink_(sink),
      peers_(seed, kMaxHosts),
      expected_(seed, maxSubjects),
      maxUnfinished_(maxUnfinished) {}

Receiver::Peer& Receiver::peerOf(std::string_view host, std::uint64_t epoch) {
    if (lastPeer_ != nullptr && lastPeer_->epoch == epoch && lastPeer_->host == host) {
        return *lastPeer_;
    }
    const std::string key = peerKey(host, epoch);
    lastPeer_ = peers_.find(key);
    if (lastPeer_ != nullptr) return *lastPeer_;
    if (peers_.isFull()) {
        hasEvicted_ = true;
        Peer& oldest = peers_.oldest().second;
        giveUp(oldest);
        byId_.erase(oldest.id);
    }
    Peer peer;
    peer.id = nextId_++;
    peer.host = host;
    peer.isFromEvicted = hasEvicted_;
    peer.epoch = epoch;
    Peer& added = peers_.add(key, std::move(peer));
    byId_[added.id] = &added;
    lastPeer_ = &added;
    return added;
}

// The key of a subject in the table of expected numbers: the peer's id, the subject's bytes. Valid
// until the next call.
const std::string& Receiver::keyOf(std::uint32_t peer, SubjectView subject) {
    key_.resize(kIdBytes);
    storeBig32(key_.data(), peer);
    return key_.append(subject.encoded());
}

void Receiver::take(const Frame& frame, SubjectView subject) {
    Peer& peer = peerOf(frame.host, frame.epoch);
    if (peer.last != 0 && frame.first.sequence > peer.last + kLongestLeap) return;
    if (frame.isMark()) {
        // It has the sequence of what comes next. An older one says nothing new.
        if (frame.first.sequence <= peer.last) return;
        giveUp(peer);
        // What is older and comes later by another way is counted now, and left out then.
        peer.last = frame.first.sequence - 1;
        note(peer, frame, subject, frame.first, 0);
    } else if (frame.kind == FrameKind::Data) {
        takeData(peer, frame, subject);
    } else if (frame.kind == FrameKind::Part) {
        takePart(peer, frame, subject);
    }
}

void Receiver::takeData(Peer& peer, const Frame& frame, SubjectView subject) {
    const std::uint64_t end = frame.first.sequence + frame.count;
    if (end <= peer.last + 1 || end < frame.first.sequence) return;  // a second copy
    // Of a frame that is seen in part the rest is new.
    const std::uint64_t seen =
        peer.last >= frame.first.sequence ? peer.last + 1 - frame.first.sequence : 0;
    giveUp(peer);
    peer.last = end - 1;
    note(peer, frame, subject,
         {frame.first.sequence + seen, frame.first.keyEpoch, frame.first.number + seen},
         frame.count - seen);
    FrameMessages messages(frame);
    Bytes message;
    for (std::uint64_t i = 0; messages.next(message); ++i) {
        if (i >= seen) deliver(peer, subject, message);
    }
}

void Receiver::takePart(Peer& peer, const Frame& frame, SubjectView subject) {
    const std::uint64_t sequence = frame.first.sequence;
    if (sequence > peer.last) {
        startParts(peer, frame, subject);
        return;
    }
    const bool isOurs = sequence == peer.last && !peer.subject.empty() &&
                        frame.total == peer.total && peer.subject == subject.encoded();
    if (!isOurs || frame.offset < peer.bytes.size()) return;  // a second copy
    if (frame.offset > peer.bytes.size()) {
        giveUp(peer);
    } else {
        appendPart(peer, frame);
    }
}

// The first part that comes of a message.
void Receiver::startParts(Peer& peer, const Frame& frame, SubjectView subject) {
    giveUp(peer);
    peer.last = frame.first.sequence;
    const bool isKnown = note(peer, frame, subject, frame.first, 1);
    if (frame.offset != 0) {
        if (isKnown) lose(peer, subject, 1, LossCause::PartMissing);
        return;
    }
    peer.subject = subject.encoded();
    peer.total = frame.total;
    peer.isUncounted = expected_.peek(keyOf(peer.id, subject)) == nullptr;
    peer.age = nextAge_++;
    unfinished_.emplace(peer.age, &peer);
    appendPart(peer, frame);
}

void Receiver::appendPart(Peer& peer, const Frame& frame) {
    const std::size_t size = peer.bytes.size() + frame.body.size();
    if (size > peer.bytes.capacity()) {
        const std::size_t capacity =
            std::min<std::size_t>(peer.total, std::max(size, size / 2 * 3));
        makeRoom(peer, capacity - peer.bytes.capacity());
        const std::size_t before = peer.bytes.capacity();
        peer.bytes.reserve(capacity);
        unfinishedBytes_ += peer.bytes.capacity() - before;
    }
    peer.bytes.append(frame.body);
    if (size < peer.total) return;
    const std::string subject = peer.subject;
    const wire::Buffer whole = release(peer);
    deliver(peer, SubjectView::trusted(subject.data()), whole.view());
}

// Gives up the oldest unfinished messages until `more` bytes are free; never that of `keep`, which
// fits alone.
void Receiver::makeRoom(const Peer& keep, std::size_t more) {
    for (auto at = unfinished_.begin();
         at != unfinished_.end() && unfinishedBytes_ + more > maxUnfinished_;) {
        Peer& oldest = *at++->second;
        if (&oldest != &keep) giveUp(oldest);
    }
}

wire::Buffer Receiver::release(Peer& peer) {
    unfinished_.erase(peer.age);
    unfinishedBytes_ -= peer.bytes.capacity();
    peer.subject.clear();
    wire::Buffer bytes;
    std::swap(bytes, peer.bytes);
    return bytes;
}

void Receiver::giveUp(Peer& peer) {
    if (peer.subject.empty()) return;
    const std::string subject = peer.subject;
    static_cast<void>(release(peer));
    if (peer.isUncounted) return;
    lose(peer, SubjectView::trusted(subject.data()), 1, LossCause::PartMissing);
}

// Takes note of `count` messages from `number` on, and tells what is missing before them. Returns
// true when what was expected is known.
bool Receiver::note(Peer& peer, const Frame& frame, SubjectView subject,
                    const MessageNumber& number, std::uint64_t count) {
    const std::string& key = keyOf(peer.id, subject);
    Expected* expected = find(key, subject);
    bool isKnown = expected != nullptr;
    if (!isKnown) {
        // Of one that may have been here before, what began up to its first frame is unknown.
        if (std::exchange(peer.isFromEvicted, false)) peer.forgotten = number.keyEpoch;
        isKnown = isAfter(number.keyEpoch, peer.forgotten) && sink_.heardAllOf(frame, subject);
        if (!isKnown && !sink_.mayBegin(frame, subject)) return false;
        if (expected_.isFull()) drop(expected_.oldest().first, expected_.oldest().second);
        expected =
            &expected_.add(key, {number.keyEpoch, isKnown ? 1 : number.number, faults_, changes_});
    } else if (expected->keyEpoch != number.keyEpoch) {
        // A late mark of an earlier key epoch says nothing of this one.
        if (!isAfter(number.keyEpoch, expected->keyEpoch)) return true;
        *expected = {number.keyEpoch, 1, expected->fault, changes_};
    }
    const std::uint64_t missing =
        number.number > expected->number ? number.number - expected->number : 0;
    const LossCause cause =
        frame.cause != LossCause::Engine ? frame.cause : causeSince(expected->fault);
    expected->number = std::max(expected->number, number.number + count);
    expected->fault = faults_;
    if (missing != 0) lose(peer, subject, missing, cause);
    return isKnown;
}

LossCause Receiver::causeSince(std::uint64_t fault) const {
    for (const auto cause : {LossCause::EngineGone, LossCause::QueueFull, LossCause::EngineSlow}) {
        if (lastFault_[static_cast<std::size_t>(cause)] > fault) return cause;
    }
    return LossCause::Engine;
}

void Receiver::deliver(Peer& peer, SubjectView subject, Bytes message) {
    if (!sink_.message(subject, message)) {
        ++peer.losses[static_cast<std::size_t>(LossCause::QueueFull)];
        return;
    }
    ++peer.received.messages;
    peer.received.bytes += message.size();
}

void Receiver::lose(Peer& peer, SubjectView subject, std::uint64_t messages, LossCause cause) {
    peer.losses[static_cast<std::size_t>(cause)] += messages;
    sink_.lost(peer.host, subject, messages, cause);
}

void Receiver::fault(LossCause cause) {
    lastFault_[static_cast<std::size_t>(cause)] = ++faults_;
}

void Receiver::forget(SubjectView pattern) {
    // The other parts may still come by another subscription; if not, nobody wanted them.
    for (const auto& [age, peer] : unfinished_) {
        if (covers(pattern, SubjectView::trusted(peer->subject.data()))) peer->isUncounted = true;
    }
    subscriptionsChange();
}

// What is expected on a subject; null when nothing is known.
Receiver::Expected* Receiver::find(const std::string& key, SubjectView subject) {
    Expected* const expected = expected_.find(key);
    if (expected == nullptr || expected->change == changes_) return expected;
    if (!sink_.isSubscribedSince(expected->change, subject)) {
        drop(key, *expected);
        expected_.erase(key);
        return nullptr;
    }
    expected->change = changes_;
    return expected;
}

// An entry leaves the table: what began no later may have been seen before.
void Receiver::drop(const std::string& key, const Expected& expected) {
    const auto peer = byId_.find(loadBig32(key.data()));
    if (peer == byId_.end()) return;
    std::uint32_t& forgotten = peer->second->forgotten;
    if (isAfter(expected.keyEpoch, forgotten)) forgotten = expected.keyEpoch;
}

void Receiver::hostDown(std::string_view host, std::uint64_t epoch) {
    if (Peer* const peer = peers_.find(peerKey(host, epoch))) giveUp(*peer);
}

}  // namespace kvx::bridge
