// The end of a batch: flush every member that has output, until none is left (a flush may add
// members), then copy each routed message that a queue still holds, since the next read overwrites
// the buffer that it borrows. Then, with nothing being routed, the largest holders of memory pay
// for what is above the limit; what they still have to say is written at once.
//
// Nothing throws here: libuv's callbacks end the batch last.

#include "rvd/Batch.h"

#include <new>

namespace kvx::rvd {

void Batch::add(BatchMember& member) noexcept {
    if (member.inBatch_) return;
    member.inBatch_ = true;
    member.next_ = nullptr;
    (first_ == nullptr ? first_ : last_->next_) = &member;
    last_ = &member;
}

void Batch::flushMembers() noexcept {
    while (first_ != nullptr) {
        BatchMember& member = *first_;
        first_ = member.next_;
        member.inBatch_ = false;
        try {
            member.flush();
        } catch (const std::bad_alloc&) {
            member.outOfMemory();
        }
    }
}

void Batch::keepRouted() noexcept {
    for (const PayloadRef& message : routed_) {
        if (!message->shared()) continue;
        try {
            message->keep();
        } catch (const std::bad_alloc&) {
            message->lose();
        }
    }
    routed_.clear();
    read_ = 0;
}

void Batch::goOn(std::size_t bytes) noexcept {
    read_ += bytes;
    if (read_ + kReadAtOnce > kReadBuffer) keepRouted();
    if (account_.used() > account_.limit()) end();
}

void Batch::end() noexcept {
    flushMembers();
    keepRouted();
    account_.relieve();
    flushMembers();
}

}  // namespace kvx::rvd
