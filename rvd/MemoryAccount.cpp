// Who holds how much, and who pays when it is too much.
//
//   FrameReader's buffer  -> Connection::setCharge(Incoming)     after every read
//   a routed message      -> Outbox::pushMessage: its entry to the holder and the total, its bytes
//                            to the holder; Payload: its bytes to the total, once, while it lives
//   an answer of the link -> Outbox::pushControl: all of it to holder and total
//   listens               -> Connection::setCharge(Listens) with what the session's listens cost;
//                            once it has left to nobody (`setOrphaned`), until they are undone
//   end of a turn         -> Batch::end -> relieve -> Connection::giveUp: the oldest messages not
//                            begun, then the connection
//
// `relieve` runs when no message is being routed, so a connection may leave its session at once,
// and what is dropped from the last queue is free when the next holder is chosen.
//
// The heap costs nothing until half of the limit is used. It is built when that is reached and
// given up at a quarter, so building it is paid by the bytes that came between.

#include "rvd/MemoryAccount.h"

#include <algorithm>

namespace kvx::rvd {
namespace {

constexpr std::uint64_t kMuchFreed = 8U << 20U;  // bytes

}  // namespace

MemoryAccount::Kinds MemoryAccount::kinds() const {
    Kinds sums{};
    for (const MemoryHolder* holder : holders_) {
        for (std::size_t i = 0; i < sums.size(); ++i) sums[i] += holder->held_[i];
    }
    return sums;
}

void MemoryAccount::relieve() {
    peak_ = std::max(peak_, used_);
    if (!isOrdered_) {
        if (used_ <= limit_ / 2) return;
        order();
    }
    if (used_ < limit_ / 4) isOrdered_ = false;
    while (used_ > limit_ + leaving_ && !holders_.empty()) {
        MemoryHolder& largest = *holders_.front();
        if (largest.rank() == 0) return;
        if (largest.giveUp()) continue;
        largest.isSpent_ = true;
        largest.leaving_ = largest.total_;
        leaving_ += largest.leaving_;
        sink(largest);
    }
}

bool MemoryAccount::hasFreedMuch() {
    peak_ = std::max(peak_, used_);
    if (peak_ - used_ < kMuchFreed) return false;
    peak_ = used_;
    return true;
}

void MemoryAccount::enroll(MemoryHolder& holder) {
    holders_.push_back(&holder);
    holder.position_ = holders_.size() - 1;
}

void MemoryAccount::remove(MemoryHolder& holder) {
    MemoryHolder& last = *holders_.back();
    const std::size_t gap = holder.position_;
    holders_.pop_back();
    if (&last == &holder) return;
    put(last, gap);
    if (isOrdered_) last.reorder();
}

void MemoryAccount::put(MemoryHolder& holder, std::size_t position) {
    holders_[position] = &holder;
    holder.position_ = position;
}

void MemoryAccount::rise(MemoryHolder& holder) {
    std::size_t at = holder.position_;
    while (at > 0) {
        MemoryHolder& parent = *holders_[(at - 1) / 2];
        if (parent.rank() >= holder.rank()) break;
        put(parent, at);
        at = (at - 1) / 2;
    }
    put(holder, at);
}

void MemoryAccount::sink(MemoryHolder& holder) {
    std::size_t at = holder.position_;
    while (2 * at + 1 < holders_.size()) {
        std::size_t child = 2 * at + 1;
        if (child + 1 < holders_.size() && holders_[child + 1]->rank() > holders_[child]->rank()) {
            ++child;
        }
        if (holders_[child]->rank() <= holder.rank()) break;
        put(*holders_[child], at);
        at = child;
    }
    put(holder, at);
}

void MemoryAccount::order() {
    isOrdered_ = true;
    for (std::size_t i = holders_.size() / 2; i-- > 0;) sink(*holders_[i]);
}

MemoryHolder::MemoryHolder(MemoryAccount& account) : account_(account) {
    account_.enroll(*this);
}

MemoryHolder::~MemoryHolder() {
    for (const std::uint64_t bytes : held_) change(0 - bytes, 0 - bytes);
    account_.leaving_ -= leaving_;
    account_.remove(*this);
}

void MemoryHolder::reorder() {
    account_.rise(*this);
    account_.sink(*this);
}

}  // namespace kvx::rvd
