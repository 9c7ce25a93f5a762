// One peer's queue.
//
//   entries_:  [ front, perhaps begun ] [ notice? ] [ what goes ahead ] [ messages and control
//   bytes ]
//
// A loss notice is always the first entry not begun. While it waits there, further losses change
// its content instead of adding another; once begun it is fixed, and the next loss starts a new
// one. `gather` inserts it, so that dropping stays cheap while the peer reads nothing.

#include "rvd/Outbox.h"

#include <algorithm>
#include <new>

#include "rvd/Delays.h"

namespace kvx::rvd {
namespace {

constexpr std::size_t kControlCost = Outbox::kEntryCost + Payload::kCost;

Drop reasonOf(LossCause cause) {
    return cause == LossCause::Memory ? Drop::Memory : Drop::Queue;
}

Counter counterOf(Drop reason) {
    switch (reason) {
        case Drop::Queue:
            return Counter::DroppedQueue;
        case Drop::Memory:
            return Counter::DroppedMemory;
        case Drop::Shutdown:
            return Counter::DroppedShutdown;
        case Drop::Ended:
        case Drop::Count:
            break;
    }
    return Counter::DroppedEnded;
}

}  // namespace

Outbox::Outbox(std::size_t limit, MemoryHolder& holder, Counters& counters, Delays* delays)
    : limit_(limit), holder_(holder), counters_(counters), delays_(delays) {}

Outbox::~Outbox() {
    count(endReason_, waitingMessages_);
    holder_.dischargeShared(waitingBytes_, waitingMessages_ * kEntryCost);
    holder_.setCharge(Holding::Control, 0);
}

std::size_t Outbox::pushMessage(const PayloadRef& message) {
    const std::size_t size = message->size();
    ++totals_.matched;
    counters_.add(Counter::MessagesMatched);
    if (size > limit_) {
        nameDropped(*message);
        recordLoss(1, size, LossCause::TooLarge);
        return 0;
    }
    try {
        entries_.push_back({message, static_cast<std::uint32_t>(size), Kind::Message});
    } catch (const std::bad_alloc&) {
        nameDropped(*message);
        recordLoss(1, size, LossCause::Memory);
        return 0;
    }
    addWaiting(*message, size);
    return wouldDrop(0) ? trim() : 0;
}

std::size_t Outbox::trim() {
    std::size_t dropped = 0;
    while (wouldDrop(0) && dropped < kDropsAtOnce) {
        const std::size_t some = dropForRoom(kDropsAtOnce - dropped);
        if (some == 0) break;
        dropped += some;
    }
    return dropped;
}

bool Outbox::pushControl(wire::Bytes bytes) {
    return insertControl(entries_.size(), bytes, Kind::Control);
}

bool Outbox::pushAhead(wire::Bytes bytes) {
    const bool isWriting = frontBegun_ && entries_.front().kind == Kind::Ahead;
    const std::size_t others = ahead_ - (isWriting ? 1 : 0);
    const std::size_t first = (frontBegun_ ? 1 : 0) + (notice_ != Notice::None ? 1 : 0);
    if (!insertControl(first + others, bytes, Kind::Ahead)) return false;
    ++ahead_;
    return true;
}

bool Outbox::insertControl(std::size_t position, wire::Bytes bytes, Kind kind) {
    const std::size_t cost = bytes.size() + kControlCost;
    if (holder_.held(Holding::Control) + cost > kControlLimit) return false;
    entries_.insert(entries_.begin() + static_cast<std::ptrdiff_t>(position),
                    {Payload::copy(bytes), static_cast<std::uint32_t>(bytes.size()), kind});
    holder_.charge(Holding::Control, cost);
    return true;
}

void Outbox::count(Drop reason, std::uint64_t messages) {
    totals_.dropped += messages;
    totals_.droppedBy[static_cast<std::size_t>(reason)] += messages;
    counters_.add(counterOf(reason), messages);
}

void Outbox::recordLoss(std::size_t messages, std::size_t bytes, LossCause cause) {
    count(reasonOf(cause), messages);
    loss_.add(messages, bytes, cause);
    if (notice_ == Notice::Current) notice_ = Notice::Stale;
}

void Outbox::announceEnd(LossCause cause) {
    loss_.causes |= static_cast<std::uint8_t>(cause);
    if (notice_ == Notice::Current) notice_ = Notice::Stale;
}

// Drops `number` messages from `position` on. What is ahead of them takes the places of the last
// ones, so that all go from the front, and nothing is allocated.
void Outbox::drop(std::size_t position, std::size_t number, LossCause cause) {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < number; ++i) {
        const Entry& entry = entries_[position + i];
        bytes += entry.size;
        nameDropped(*entry.payload);
    }
    for (std::size_t i = position; i-- > 0;) std::swap(entries_[i], entries_[i + number]);
    entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(number));
    removeWaiting(number, bytes);
    recordLoss(number, bytes, cause);
}

// The position of the oldest message not begun, or behind all entries.
std::size_t Outbox::oldestMessage() const {
    std::size_t at = frontBegun_ ? 1 : 0;
    while (at < entries_.size() && entries_[at].kind != Kind::Message) ++at;
    return at;
}

bool Outbox::dropOldest(LossCause cause) {
    const std::size_t oldest = oldestMessage();
    if (oldest == entries_.size()) return false;
    drop(oldest, 1, cause);
    return true;
}

// Drops as many of the oldest messages as are too much, or those ahead of the next control bytes.
std::size_t Outbox::dropForRoom(std::size_t most) {
    const std::size_t oldest = oldestMessage();
    const std::size_t tooMuch = waitingBytes() - limit_;
    std::size_t number = 0;
    for (std::size_t bytes = 0; bytes < tooMuch && number < most; ++number) {
        if (oldest + number == entries_.size()) break;
        if (entries_[oldest + number].kind != Kind::Message) break;
        bytes += entries_[oldest + number].size;
    }
    if (number > 0) drop(oldest, number, LossCause::SlowReader);
    return number;
}

// Drops the first messages not begun whose bytes are lost.
void Outbox::dropLost() {
    const std::size_t first = frontBegun_ ? 1 : 0;
    while (first < entries_.size() && entries_[first].payload->isLost()) {
        drop(first, 1, LossCause::Memory);
    }
}

void Outbox::placeNotice() {
    if (notice_ == Notice::Current || !loss_.any()) return;
    const std::vector<std::uint8_t> notice = buildDataLoss(loss_, dropped_);
    if (notice.empty()) return;
    const auto place = entries_.begin() + (frontBegun_ ? 1 : 0);
    if (notice_ == Notice::Stale) {
        place->payload = Payload::copy(notice);  // throws
        place->size = static_cast<std::uint32_t>(notice.size());
    } else {
        const auto size = static_cast<std::uint32_t>(notice.size());
        entries_.insert(place, {Payload::copy(notice), size, Kind::Notice});
        counters_.add(Counter::LossNotices);
    }
    notice_ = Notice::Current;
}

std::size_t Outbox::gather(std::span<wire::Bytes> out) {
    dropLost();
    placeNotice();
    std::size_t count = 0;
    std::size_t skip = sentOfFront_;
    for (const Entry& entry : entries_) {
        if (entry.payload->isLost()) break;  // what is ahead of it is written first
        const wire::Bytes bytes = entry.payload->bytes().subspan(skip);
        skip = 0;
        // Adjacent messages in a chunk are one piece.
        if (count > 0 && out[count - 1].data() + out[count - 1].size() == bytes.data()) {
            out[count - 1] = {out[count - 1].data(), out[count - 1].size() + bytes.size()};
            continue;
        }
        if (count == out.size()) break;
        out[count++] = bytes;
    }
    return count;
}

wire::Bytes Outbox::pinFront() {
    entries_.front().payload->keep();
    beginFront();
    return entries_.front().payload->bytes().subspan(sentOfFront_);
}

void Outbox::beginFront() {
    if (frontBegun_) return;
    frontBegun_ = true;
    if (entries_.front().kind == Kind::Notice) {
        loss_ = {};
        dropped_.clear();
        notice_ = Notice::None;
    }
}

void Outbox::written(std::size_t bytes) {
    while (bytes > 0 && !entries_.empty()) {
        beginFront();
        const std::size_t left = entries_.front().size - sentOfFront_;
        if (bytes < left) {
            sentOfFront_ += bytes;
            return;
        }
        bytes -= left;
        if (entries_.front().kind == Kind::Message) noteDelivered(entries_.front());
        popFront();
    }
}

std::size_t Outbox::discardFront() {
    loss_ = {};
    if (entries_.empty()) return 0;
    const std::size_t size = entries_.front().size;
    if (entries_.front().kind == Kind::Message) count(endReason_);
    popFront();
    return size;
}

void Outbox::noteDelivered(const Entry& entry) {
    ++totals_.delivered;
    counters_.add(Counter::MessagesDelivered);
    counters_.add(Counter::BytesDelivered, entry.size);
    const DelayMark mark = entry.payload->delayMark();
    if (mark && delays_ != nullptr) delays_->handedOver(mark);
}

void Outbox::popFront() {
    const std::size_t size = entries_.front().size;
    switch (entries_.front().kind) {
        case Kind::Message:
            removeWaiting(1, size);
            break;
        case Kind::Ahead:
            --ahead_;
            [[fallthrough]];
        case Kind::Control:
            holder_.discharge(Holding::Control, size + kControlCost);
            break;
        case Kind::Notice:
            break;
    }
    entries_.pop_front();
    frontBegun_ = false;
    sentOfFront_ = 0;
}

void Outbox::save(StateWriter& state) const {
    state.number(entries_.size());
    for (const Entry& entry : entries_) {
        state.number(static_cast<std::uint64_t>(entry.kind));
        state.payload(entry.payload);
    }
    state.boolean(frontBegun_);
    state.number(sentOfFront_);
    state.number(loss_.messages);
    state.number(loss_.bytes);
    state.number(loss_.causes);
    dropped_.save(state);
    state.boolean(namesDropped_);
    state.number(static_cast<std::uint64_t>(notice_));
    state.number(totals_.matched);
    state.number(totals_.delivered);
    state.number(totals_.dropped);
    for (const std::uint64_t dropped : totals_.droppedBy) state.number(dropped);
}

void Outbox::restore(StateReader& state) {
    for (std::uint64_t left = state.number(); left > 0; --left) {
        const auto kind = static_cast<Kind>(state.number());
        const PayloadRef payload = state.payload();
        const std::size_t size = payload->size();
        entries_.push_back({payload, static_cast<std::uint32_t>(size), kind});
        if (kind == Kind::Message) addWaiting(*payload, size);
        if (kind == Kind::Ahead) ++ahead_;
        if (kind == Kind::Ahead || kind == Kind::Control) {
            holder_.charge(Holding::Control, size + kControlCost);
        }
    }
    frontBegun_ = state.boolean();
    state.into(sentOfFront_);
    state.into(loss_.messages);
    state.into(loss_.bytes);
    state.into(loss_.causes);
    dropped_.restore(state);
    namesDropped_ = state.boolean();
    notice_ = static_cast<Notice>(state.number());
    state.into(totals_.matched);
    state.into(totals_.delivered);
    state.into(totals_.dropped);
    for (std::uint64_t& dropped : totals_.droppedBy) state.into(dropped);
    if (frontBegun_ && (entries_.empty() || sentOfFront_ >= entries_.front().size)) {
        throw StateError("a queue is not sound");
    }
}

}  // namespace kvx::rvd
