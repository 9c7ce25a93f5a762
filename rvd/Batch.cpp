// The end of a turn of the loop: flush every member that has output, until none is left (a flush
// may add members), then copy each routed message that a queue still holds, since the next read
// overwrites the buffer that it borrows.

#include "rvd/Batch.h"

namespace kvx::rvd {

void Batch::add(BatchMember& member) {
    if (member.inBatch_) return;
    members_.push_back(&member);
    member.inBatch_ = true;
}

void Batch::end() {
    while (!members_.empty()) {  // flushing may add to the list
        flushing_.swap(members_);
        for (BatchMember* member : flushing_) {
            member->inBatch_ = false;
            member->flush();
        }
        flushing_.clear();
    }
    for (const PayloadRef& message : routed_) {
        if (message->shared()) message->keep();
    }
    routed_.clear();
}

}  // namespace kvx::rvd
