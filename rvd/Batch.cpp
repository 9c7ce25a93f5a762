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
