// A bridge numbers its changes and says in every beat the number of the last one, and count and
// digest of what its host listens to. Who knows another state asks for a snapshot; until it has
// come, whole, what was known before stays in force, so that interest has no gaps. Only in the
// order of one sender is relied upon: a change that does not follow the last one known makes the
// host "incomplete", as does a beat that differs, an unknown host, and another epoch of a known
// one. Whatever is lost, the next beat finds.
//
// The messages to all are numbered, and say how many messages on subjects have been sent. Who
// misses a number may have missed messages as well; it asks for marks of all subjects used since
// some beats before. What is lost without a number being lost is found by the mark that each
// subject gets when it has been quiet for two beats.
//
// To keep a common start quiet: who joins says hello and then tells its own interest to all; those
// who hear it answer with a snapshot, later by a random time, and all who have asked within that
// time get one broadcast. Asking waits for a random time too, and is left out when the snapshot has
// come meanwhile.
//
// Of two bridges with one name or one daemon, one must end. A bridge that is ready stays; among two
// that are both ready, or both not, the one with the smaller epoch. Both ends judge by what the
// message says of its sender, so that never both end.

#include "rvbridge/Exchange.h"

#include <algorithm>
#include <utility>

#include "rvbridge/ControlMessage.h"

namespace kvx::bridge {

namespace {

constexpr Microseconds kMillisecond = 1'000;
constexpr std::size_t kPingsPerBeat = 16;
constexpr std::size_t kMaxAcks = 16;
constexpr std::size_t kLeastLimit = 2'048;

SubjectView viewOf(const std::string& subject) {
    return SubjectView::trusted(subject.data());
}

// FNV-1a, mixed so that sums of it differ. Part of the protocol.
std::uint64_t digestOf(std::string_view bytes) {
    std::uint64_t hash = 0xCBF29CE484222325U;
    for (const char c : bytes) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
    hash = (hash ^ hash >> 30U) * 0xBF58476D1CE4E5B9U;
    hash = (hash ^ hash >> 27U) * 0x94D049BB133111EBU;
    return hash ^ hash >> 31U;
}

}  // namespace

Exchange::Exchange(BridgeIdentity identity, ExchangeActions& actions)
    : identity_(std::move(identity)),
      actions_(actions),
      random_(static_cast<std::uint32_t>(identity_.epoch ^ identity_.epoch >> 32U)) {}

Exchange::~Exchange() = default;

void Exchange::setLimit(std::size_t bytes) {
    limit_ = std::clamp(bytes, kLeastLimit, kMaxControl);
}

Microseconds Exchange::jitter(Microseconds atLeast, Microseconds atMost) {
    return std::uniform_int_distribution<Microseconds>(atLeast, atMost)(random_);
}

// What our own daemon says.

void Exchange::beginSnapshot(std::string_view daemon) {
    daemon_ = daemon.substr(0, ControlMessage::kMaxText);
    for (auto& [subject, own] : own_) own.isOld = true;
}

void Exchange::add(SubjectView subject) {
    if (ControlMessage::isReserved(subject)) return;
    const auto [at, isNew] = own_.try_emplace(std::string(subject.encoded()));
    at->second.isOld = false;
    if (!isNew) return;
    digest_ += digestOf(at->first);
    if (subject.hasWildcards()) ownPatterns_.add(subject, &at->second);
    at->second.toldIn = pend(ControlMessage::kAdd, subject);
}

void Exchange::remove(SubjectView subject) {
    const auto at = own_.find(std::string(subject.encoded()));
    if (at != own_.end()) drop(at);
}

void Exchange::complete() {
    for (auto at = own_.begin(); at != own_.end();) {
        const auto here = at++;
        if (here->second.isOld) drop(here);
    }
}

void Exchange::drop(std::unordered_map<std::string, Own>::iterator own) {
    const SubjectView subject = viewOf(own->first);
    digest_ -= digestOf(own->first);
    if (subject.hasWildcards()) {
        static_cast<void>(ownPatterns_.remove(subject, &own->second));
    }
    pend(ControlMessage::kRemove, subject);
    own_.erase(own);
}

// Adds to the next change, and returns its number.
std::uint64_t Exchange::pend(std::uint8_t what, SubjectView subject) {
    if (!isTalking()) return change_;
    if (pending_.size() + 1 + subject.length() > limit_) flush();
    if (pending_.empty())
        pending_ = ControlPayload(ControlMessage::kChange).u64(change_ + 1).take();
    pending_.push_back(what);
    const std::string_view bytes = subject.encoded();
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
    return change_ + 1;
}

void Exchange::flush() {
    if (pending_.empty() || !isTalking()) return;
    ++change_;
    const std::vector<std::uint8_t> change = std::exchange(pending_, {});
    sendToAll(change);
    pingSoon();
}

// What we send.

void Exchange::start(Microseconds now) {
    if (stage_ != Stage::Silent) return;
    stage_ = Stage::Joining;
    startedAt_ = tickedAt_ = now;
    beatAt_ = now + jitter(kBeat / 2, kBeat);
    sendState(ControlMessage::kHello);
    snapshotAt_ = now + jitter(50 * kMillisecond, 150 * kMillisecond);
    askers_ = {"", identity_.host};  // everybody
}

void Exchange::marked(std::string_view host, std::uint64_t after) {
    const auto known = hosts_.find(host);
    if (known == hosts_.end() || !isTalking()) return;
    const std::uint64_t epoch = known->second->state.epoch;
    actions_.sendTo(host, ControlPayload(ControlMessage::kMarked).u64(epoch).u64(after));
}

void Exchange::stop() {
    if (isTalking()) sendToAll(ControlPayload(ControlMessage::kBye));
    stage_ = Stage::Ended;
}

namespace {
ControlPayload& appendState(ControlPayload& payload, std::uint64_t change, std::size_t count,
                            std::uint64_t digest, bool isReady, const std::string& since,
                            const std::string& daemon) {
    return payload.u64(change)
        .u32(static_cast<std::uint32_t>(count))
        .u64(digest)
        .u8(isReady ? ControlMessage::kReadyFlag : 0)
        .text(since)
        .text(daemon);
}
}  // namespace

void Exchange::sendState(std::uint8_t op) {
    flush();
    ControlPayload payload(op);
    appendState(payload, change_, own_.size(), digest_, isReady(), identity_.since, daemon_);
    sendToAll(payload);
}

void Exchange::wantSnapshot(Microseconds now, std::string_view asker) {
    askers_.emplace(asker);
    if (snapshotAt_) return;
    const Microseconds soonest = snapshotSentAt_ + 200 * kMillisecond;
    snapshotAt_ = std::max(now, soonest) + jitter(20 * kMillisecond, 60 * kMillisecond);
}

void Exchange::sendSnapshot(Microseconds now) {
    flush();
    snapshotAt_.reset();
    snapshotSentAt_ = now;
    const auto askers = std::exchange(askers_, {});
    std::uint32_t part = 0;
    auto at = own_.begin();
    do {
        ControlPayload payload(ControlMessage::kSnapshot);
        appendState(payload, change_, own_.size(), digest_, isReady(), identity_.since, daemon_);
        payload.u32(part++);
        const std::size_t lastFlag = payload.size();
        payload.u8(0);
        for (; at != own_.end() && payload.size() + at->first.size() <= limit_; ++at) {
            payload.raw(at->first);
        }
        payload[lastFlag] = at == own_.end() ? 1 : 0;
        if (askers.size() == 1) {
            actions_.sendTo(*askers.begin(), payload);
        } else {
            sendToAll(payload);
        }
    } while (at != own_.end());
}

// What others know of us is known by their pongs. Who has just heard something is asked sooner than
// with the next beat.
void Exchange::pingSoon() {
    if (!pingAt_) pingAt_ = tickedAt_ + kBeat / 4;
}

void Exchange::pingSome(Microseconds now) {
    pingAt_.reset();
    for (std::size_t i = 0; i < std::min(kPingsPerBeat, hosts_.size()); ++i) {
        auto at = hosts_.upper_bound(pinged_);
        if (at == hosts_.end()) at = hosts_.begin();
        Host& host = *at->second;
        pinged_ = at->first;
        host.pingedAt = now;
        actions_.sendTo(at->first,
                        ControlPayload(ControlMessage::kPing).u64(static_cast<std::uint64_t>(now)));
    }
}

void Exchange::askAndForget(Microseconds now) {
    // After a pause of our own, what has come meanwhile is still to be read.
    const Microseconds pause = std::max<Microseconds>(0, now - tickedAt_ - kBeat);
    for (auto at = hosts_.begin(); at != hosts_.end();) {
        Host& host = *(at++)->second;
        host.heardAt += pause;
        if (now - host.heardAt > kSilence) {
            forget(host);
            continue;
        }
        if (host.askAt && *host.askAt <= now) {
            host.askAt = now + jitter(kSecond, 2 * kSecond);
            actions_.sendTo(host.state.name,
                            ControlPayload(ControlMessage::kAsk).u64(host.state.epoch));
        }
        Heard& heard = host.heard;
        if (heard.askAt && *heard.askAt <= now) {
            heard.askAt = now + jitter(2 * kSecond, 4 * kSecond);
            heard.isAsked = true;
            actions_.sendTo(
                host.state.name,
                ControlPayload(ControlMessage::kMarks).u64(host.state.epoch).u64(heard.askAfter));
        }
    }
}

void Exchange::tick(Microseconds now) {
    if (!isTalking()) return;
    flush();
    askAndForget(now);
    tickedAt_ = now;
    if (snapshotAt_ && *snapshotAt_ <= now) sendSnapshot(now);
    if (beatAt_ <= now) {
        beatAt_ = now + kBeat;
        sendState(ControlMessage::kBeat);
        pingSome(now);
    } else if (pingAt_ && *pingAt_ <= now) {
        pingSome(now);
    }
    if (stage_ != Stage::Joining || now < startedAt_ + kSettle) return;
    const bool isSettled = std::all_of(hosts_.begin(), hosts_.end(), [](const auto& entry) {
        return entry.second->state.complete;
    });
    if (!isSettled && now < startedAt_ + kReadyAtMost) return;
    stage_ = Stage::Ready;
    actions_.ready();
}

// What others say.

void Exchange::receive(Microseconds now, const Frame& frame) {
    if (!isTalking() || frame.kind != FrameKind::Control || frame.epoch == identity_.epoch) return;
    ControlMessage said;
    if (!said.read(frame.body)) return;
    const bool sameName = frame.host == identity_.host;
    if (said.op == ControlMessage::kTaken) obeyTaken(frame, said);
    if (said.hasState() && said.part == 0 &&
        (sameName || (!daemon_.empty() && said.daemon == daemon_))) {
        judgeRival(frame, said, sameName);
    }
    if (sameName || !isTalking()) return;
    Host* const host = hostOf(now, frame, said);
    if (host == nullptr) return;
    takeNumber(now, host->heard, frame, said.op == ControlMessage::kBeat);
    if (said.op == ControlMessage::kHello ||
        (said.op == ControlMessage::kAsk && said.epoch == identity_.epoch)) {
        wantSnapshot(now, frame.host);
    }
    if (said.op == ControlMessage::kHello || said.op == ControlMessage::kBeat) {
        takeState(now, *host, said);
    } else if (said.op == ControlMessage::kChange) {
        takeChange(now, *host, said);
    } else if (said.op == ControlMessage::kSnapshot) {
        takeSnapshot(now, *host, said);
    } else if (said.op == ControlMessage::kPing) {
        actions_.sendTo(frame.host, ControlPayload(ControlMessage::kPong)
                                        .u64(frame.epoch)
                                        .u64(said.stamp)
                                        .u64(knowledgeOf(frame.host)));
    } else if (said.op == ControlMessage::kPong && said.epoch == identity_.epoch) {
        takePong(now, *host, frame, said);
    } else if (said.op == ControlMessage::kMarks && said.epoch == identity_.epoch) {
        actions_.marksWanted(frame.host, said.after);
    } else if (said.op == ControlMessage::kMarked && said.epoch == identity_.epoch) {
        Heard& heard = host->heard;
        if (heard.isAsked && heard.askAfter == said.after) heard.askAt.reset();
    } else if (said.op == ControlMessage::kBye) {
        forget(*host);
    }
}

void Exchange::judgeRival(const Frame& frame, const ControlMessage& said, bool sameName) {
    const bool weStay = isReady() != said.isReady ? isReady() : identity_.epoch < frame.epoch;
    if (!weStay) return;
    actions_.sendTo(frame.host, ControlPayload(ControlMessage::kTaken)
                                    .u64(frame.epoch)
                                    .u8(isReady() ? ControlMessage::kReadyFlag : 0)
                                    .u8(sameName ? ControlMessage::kSameName : 0));
    // Others may have taken it for another start of this bridge.
    if (sameName) sendState(ControlMessage::kBeat);
}

void Exchange::obeyTaken(const Frame& frame, const ControlMessage& said) {
    if (said.epoch != identity_.epoch) return;
    if (isReady() && !(said.isReady && frame.epoch < identity_.epoch)) return;
    // Of the name that stays, a bye would end the other one's interest too.
    if (!said.sameName) sendToAll(ControlPayload(ControlMessage::kBye));
    stage_ = Stage::Ended;
    actions_.refused(said.sameName ? "another bridge is running as host \"" + identity_.host + "\""
                                   : "the bridge of host \"" + std::string(frame.host) +
                                         "\" is already serving this daemon and space");
}

// The host that has sent `frame`; null when it is to be ignored.
Exchange::Host* Exchange::hostOf(Microseconds now, const Frame& frame, const ControlMessage& said) {
    const auto known = hosts_.find(frame.host);
    if (known != hosts_.end() && known->second->state.epoch == frame.epoch) {
        known->second->heardAt = now;
        return known->second.get();
    }
    if (said.op == ControlMessage::kBye || said.op == ControlMessage::kTaken) return nullptr;
    Host* host = nullptr;
    if (known != hosts_.end()) {
        // Another start of it: what it listened to stays until we know what it listens to now.
        host = known->second.get();
        host->state.up = false;
        actions_.hostDown(host->state);
        host->state.roundTrip.reset();
        host->incoming.clear();
        host->incomingPart = 0;
        host->pingedAt.reset();
        host->acks.clear();
        host->heard = {};
        host->change = 0;
        host->wasComplete = false;
    } else {
        if (hosts_.size() >= kMaxHosts) return nullptr;
        host = hosts_.emplace(frame.host, std::make_unique<Host>()).first->second.get();
        host->state.name = frame.host;
        std::erase_if(dead_, [&](const Dead& dead) {
            if (dead.state.name != frame.host) return false;
            if (dead.state.epoch == frame.epoch) host->heard = dead.heard;
            return true;
        });
    }
    host->state.epoch = frame.epoch;
    host->state.up = true;
    host->state.since = said.since;
    host->heardAt = now;
    setIncomplete(now, *host);
    actions_.hostUp(host->state);
    return host;
}

void Exchange::setIncomplete(Microseconds now, Host& host) {
    host.state.complete = false;
    if (!host.askAt) host.askAt = now + jitter(100 * kMillisecond, 300 * kMillisecond);
}

void Exchange::setComplete(Host& host, std::uint64_t change) {
    host.change = change;
    host.state.complete = true;
    if (!std::exchange(host.wasComplete, true)) pingSoon();
    host.askAt.reset();
    host.incoming.clear();
    host.incomingPart = 0;
}

void Exchange::takeNumber(Microseconds now, Heard& heard, const Frame& frame, bool isBeat) {
    const std::uint64_t number = frame.first.number;
    if (!std::exchange(heard.isKnown, true)) {
        heard.sequences.fill(frame.first.sequence);
        heard.number = number;
    }
    if (number <= heard.number) return;  // 0: it is to us alone
    if (number != heard.number + 1) {
        if (!heard.askAt) heard.askAfter = heard.sequences.back();
        heard.askAt = now + jitter(20 * kMillisecond, 200 * kMillisecond);
        heard.isAsked = false;
    }
    heard.number = number;
    if (!isBeat) return;
    std::rotate(heard.sequences.begin(), heard.sequences.end() - 1, heard.sequences.end());
    heard.sequences.front() = frame.first.sequence;
}

void Exchange::takeState(Microseconds now, Host& host, const ControlMessage& said) {
    host.state.since = said.since;
    if (said.count == host.subjects.size() && said.digest == host.digest) {
        setComplete(host, said.change);
    } else {
        setIncomplete(now, host);
    }
}

void Exchange::takeChange(Microseconds now, Host& host, const ControlMessage& said) {
    if (!host.state.complete || said.change <= host.change) return;
    if (said.change != host.change + 1) {
        setIncomplete(now, host);
        return;
    }
    host.change = said.change;
    WireReader reader(said.list.data(), said.list.size());
    for (std::uint8_t what = 0; reader.u8(what);) {
        const auto subject = ControlMessage::takeSubject(reader);
        if (what == ControlMessage::kRemove) {
            erase(host, *subject);
        } else if (!insert(host, *subject)) {
            setIncomplete(now, host);
        }
    }
}

void Exchange::takeSnapshot(Microseconds now, Host& host, const ControlMessage& said) {
    host.state.since = said.since;
    if (said.count == host.subjects.size() && said.digest == host.digest) {
        setComplete(host, said.change);
        return;
    }
    if (said.part == 0) {
        host.incoming.clear();
    } else if (said.part != host.incomingPart || said.change != host.incomingChange) {
        setIncomplete(now, host);
        return;
    }
    host.incomingPart = said.part + 1;
    host.incomingChange = said.change;
    WireReader reader(said.list.data(), said.list.size());
    while (reader.left() != 0 && host.incoming.size() < kMaxSubjectsOfHost) {
        host.incoming.emplace(ControlMessage::takeSubject(reader)->encoded());
    }
    setIncomplete(now, host);
    if (!said.isLast) return;
    const Subjects named = std::exchange(host.incoming, {});
    host.incomingPart = 0;
    std::uint64_t digest = 0;
    for (const std::string& subject : named) digest += digestOf(subject);
    if (named.size() != said.count || digest != said.digest) return;
    bool isWhole = true;
    for (const std::string& subject : named) isWhole = insert(host, viewOf(subject)) && isWhole;
    for (const std::string& subject : std::vector(host.subjects.begin(), host.subjects.end())) {
        if (!named.contains(subject)) erase(host, viewOf(subject));
    }
    if (isWhole) setComplete(host, said.change);
}

void Exchange::takePong(Microseconds now, Host& host, const Frame& frame,
                        const ControlMessage& said) const {
    if (!host.pingedAt || static_cast<std::uint64_t>(*host.pingedAt) != said.stamp) return;
    host.state.roundTrip = now - *host.pingedAt;
    host.pingedAt.reset();
    // An older one of the same change says more.
    const std::uint64_t change = said.knowledge - identity_.epoch;
    if (change > change_ || (!host.acks.empty() && host.acks.back().change == change)) return;
    host.acks.push_back({change, frame.first.keyEpoch});
    if (host.acks.size() > kMaxAcks) host.acks.pop_front();
}

// False when there are too many.
bool Exchange::insert(Host& host, SubjectView subject) {
    if (host.subjects.size() >= kMaxSubjectsOfHost || subjects_ >= kMaxSubjects) {
        return host.subjects.contains(std::string(subject.encoded()));
    }
    const auto [at, isNew] = host.subjects.emplace(subject.encoded());
    if (!isNew) return true;
    ++subjects_;
    host.digest += digestOf(*at);
    host.state.subjects = host.subjects.size();
    const bool isFirst = others_.find(subject) == 0;
    others_.add(subject, &host);
    if (isFirst) actions_.listen(subject);
    return true;
}

void Exchange::erase(Host& host, SubjectView subject) {
    const auto at = host.subjects.find(std::string(subject.encoded()));
    if (at == host.subjects.end()) return;
    const auto node = host.subjects.extract(at);
    --subjects_;
    const std::string& kept = node.value();
    host.digest -= digestOf(kept);
    host.state.subjects = host.subjects.size();
    static_cast<void>(others_.remove(viewOf(kept), &host));
    if (others_.find(viewOf(kept)) == 0) actions_.cancel(viewOf(kept));
}

void Exchange::forget(Host& host) {
    const Subjects subjects = host.subjects;
    for (const std::string& subject : subjects) erase(host, viewOf(subject));
    host.state.up = false;
    host.state.complete = false;
    if (dead_.size() >= kMaxDead) dead_.pop_front();
    dead_.push_back({host.state, host.heard});
    hosts_.erase(hosts_.find(host.state.name));
    actions_.hostDown(dead_.back().state);
}

bool Exchange::heardAllOf(std::string_view host, std::uint64_t epoch, std::uint32_t keyEpoch,
                          SubjectView subject) const {
    const auto at = hosts_.find(host);
    if (at == hosts_.end() || at->second->state.epoch != epoch) return false;
    const std::deque<Ack>& acks = at->second->acks;
    const auto ack = std::find_if(acks.rbegin(), acks.rend(), [keyEpoch](const Ack& candidate) {
        return static_cast<std::int32_t>(keyEpoch - candidate.keyEpoch) > 0;
    });
    if (ack == acks.rend()) return false;
    return subject.hasWildcards() || isToldBy(ack->change, subject);
}

// Whether one who knows our changes up to this one knows that we listen to `subject`.
bool Exchange::isToldBy(std::uint64_t change, SubjectView subject) const {
    const auto own = own_.find(std::string(subject.encoded()));
    if (own != own_.end() && own->second.toldIn <= change) return true;
    bool isCovered = false;
    ownPatterns_.match(subject, deliveryMatch(subject), [&](const Own& pattern) {
        isCovered = pattern.toldIn <= change;
        return !isCovered;
    });
    return isCovered;
}

std::uint64_t Exchange::knowledgeOf(std::string_view host) const {
    const auto at = hosts_.find(host);
    if (at == hosts_.end() || !at->second->wasComplete) return 0;
    return at->second->state.epoch + at->second->change;
}

// The number says nothing of another epoch than ours: the sum is far off, as epochs are random.
bool Exchange::wasKnown(std::uint64_t knowledge, SubjectView subject) const {
    const std::uint64_t change = knowledge - identity_.epoch;
    return change <= change_ && isToldBy(change, subject);
}

}  // namespace kvx::bridge
