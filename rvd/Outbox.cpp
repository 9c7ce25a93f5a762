// One peer's queue.
//
//   entries_:  [ front, perhaps begun ] [ notice? ] [ messages and control bytes in order ... ]
//
// A loss notice is always the first entry not begun. While it waits there, further losses change
// its content instead of adding another; once begun it is fixed, and the next loss starts a new
// one. `gather` inserts it, so that dropping stays cheap while the peer reads nothing.

#include "rvd/Outbox.h"

#include <algorithm>

namespace kvx::rvd {
namespace {

// Memory of a waiting message besides its bytes: queue entry, payload record, allocation.
constexpr std::size_t kEntryCost = 128;

Counter counterOf(LossCause cause) {
    switch (cause) {
        case LossCause::SlowReader:
            return Counter::DroppedSlowReader;
        case LossCause::Memory:
            return Counter::DroppedMemory;
        case LossCause::TooLarge:
            break;
    }
    return Counter::DroppedTooLarge;
}

}  // namespace

void OutboxPool::shrinkToLimit() {
    while (used_ > limit_) {
        const auto largest = std::ranges::max_element(members_, {}, [](const Outbox* box) {
            return box->canDrop() ? box->waitingBytes_ : 0;
        });
        if (largest == members_.end() || !(*largest)->dropOldest(LossCause::Memory)) return;
    }
}

Outbox::Outbox(std::size_t limit, OutboxPool& pool, Counters& counters)
    : limit_(limit), pool_(pool), counters_(counters) {
    pool_.members_.push_back(this);
}

Outbox::~Outbox() {
    const std::uint64_t left = waitingMessages();
    counters_.add(Counter::DroppedSessionEnded, left);
    pool_.used_ -= waitingBytes_ + left * kEntryCost;
    std::erase(pool_.members_, this);
}

std::size_t Outbox::waitingMessages() const {
    return totals_.matched - totals_.delivered - totals_.dropped;
}

bool Outbox::inMessage() const {
    return frontBegun_ && entries_.front().kind == Kind::Message;
}

bool Outbox::canDrop() const {
    return waitingMessages() > (inMessage() ? 1U : 0U);
}

bool Outbox::wouldDrop(std::size_t size) const {
    return waitingBytes_ - (inMessage() ? sentOfFront_ : 0) + size > limit_;
}

void Outbox::pushMessage(const PayloadRef& message) {
    const std::size_t size = message->size();
    const bool fits = size <= limit_;
    if (fits) entries_.push_back({message, Kind::Message});  // may throw
    ++totals_.matched;
    counters_.add(Counter::MessagesMatched);
    if (!fits) {
        recordLoss(size, LossCause::TooLarge);
        return;
    }
    charge(size);
    while (wouldDrop(0) && dropOldest(LossCause::SlowReader)) {
    }
    pool_.shrinkToLimit();
}

bool Outbox::pushControl(wire::Bytes bytes) {
    if (controlBytes_ + bytes.size() > kControlLimit) return false;
    controlBytes_ += bytes.size();
    entries_.push_back({Payload::copy(bytes), Kind::Control});
    return true;
}

void Outbox::charge(std::size_t size) {
    waitingBytes_ += size;
    pool_.used_ += size + kEntryCost;
}

void Outbox::discharge(std::size_t size) {
    waitingBytes_ -= size;
    pool_.used_ -= size + kEntryCost;
}

void Outbox::recordLoss(std::size_t size, LossCause cause) {
    ++totals_.dropped;
    counters_.add(counterOf(cause));
    loss_.add(size, cause);
    if (notice_ == Notice::Current) notice_ = Notice::Stale;
}

// Drops the oldest message not begun. False when there is none.
bool Outbox::dropOldest(LossCause cause) {
    auto oldest = entries_.begin() + (frontBegun_ ? 1 : 0);
    oldest = std::find_if(oldest, entries_.end(),
                          [](const Entry& entry) { return entry.kind == Kind::Message; });
    if (oldest == entries_.end()) return false;
    const std::size_t size = oldest->payload->size();
    entries_.erase(oldest);
    discharge(size);
    recordLoss(size, cause);
    return true;
}

void Outbox::placeNotice() {
    if (notice_ == Notice::Current || !loss_.any()) return;
    std::vector<std::uint8_t> notice = buildDataLoss(loss_);
    if (notice.empty()) return;
    const auto place = entries_.begin() + (frontBegun_ ? 1 : 0);
    if (notice_ == Notice::Stale) {
        place->payload = Payload::own(std::move(notice));
    } else {
        entries_.insert(place, {Payload::own(std::move(notice)), Kind::Notice});
        counters_.add(Counter::LossNotices);
    }
    notice_ = Notice::Current;
}

std::size_t Outbox::gather(std::span<wire::Bytes> out) {
    placeNotice();
    std::size_t count = 0;
    std::size_t skip = sentOfFront_;
    for (const Entry& entry : entries_) {
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
    beginFront();
    entries_.front().payload->keep();
    return entries_.front().payload->bytes().subspan(sentOfFront_);
}

void Outbox::beginFront() {
    if (frontBegun_) return;
    frontBegun_ = true;
    if (entries_.front().kind == Kind::Notice) {
        loss_ = {};
        notice_ = Notice::None;
    }
}

void Outbox::written(std::size_t bytes) {
    while (bytes > 0 && !entries_.empty()) {
        beginFront();
        const std::size_t left = entries_.front().payload->size() - sentOfFront_;
        if (bytes < left) {
            sentOfFront_ += bytes;
            return;
        }
        bytes -= left;
        popFront();
    }
}

void Outbox::popFront() {
    const std::size_t size = entries_.front().payload->size();
    switch (entries_.front().kind) {
        case Kind::Message:
            ++totals_.delivered;
            counters_.add(Counter::MessagesDelivered);
            counters_.add(Counter::BytesDelivered, size);
            discharge(size);
            break;
        case Kind::Control:
            controlBytes_ -= size;
            break;
        case Kind::Notice:
            break;
    }
    entries_.pop_front();
    frontBegun_ = false;
    sentOfFront_ = 0;
}

}  // namespace kvx::rvd
