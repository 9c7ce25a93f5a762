// A borrowed payload points into the read buffer. `keep` copies it once, when a queue holds it
// beyond the batch; all queues share the copy, since they share the payload. Messages of the
// daemon's own begin with owned or copied bytes.

#include "rvd/Payload.h"

namespace kvx::rvd {

PayloadRef Payload::borrow(wire::Bytes bytes) {
    PayloadRef ref(new Payload);
    ref->bytes_ = bytes;
    return ref;
}

PayloadRef Payload::own(wire::Buffer bytes) {
    PayloadRef ref(new Payload);
    ref->owned_ = std::move(bytes);
    ref->bytes_ = ref->owned_.view();
    return ref;
}

PayloadRef Payload::copy(wire::Bytes bytes) {
    PayloadRef ref = borrow(bytes);
    ref->keep();
    return ref;
}

void Payload::keep() {
    if (!owned_.empty() || bytes_.empty()) return;
    owned_ = wire::Buffer(bytes_);
    bytes_ = owned_.view();
    if (isCharged()) account_->charge(cost());
}

}  // namespace kvx::rvd
