// A borrowed payload points into the read buffer. `keep` copies it once, when a queue holds it
// beyond the batch; all queues share the copy, since they share the payload. Messages of the
// daemon's own begin with owned or copied bytes.

#include "rvd/Payload.h"

#include <new>
#include <utility>

namespace kvx::rvd {
namespace {

// The memory of payloads that are gone, enough for the messages of one read.
struct Spare {
    Spare* next;
};
constexpr std::size_t kMostSpares = 4'096;
constinit Spare* spares = nullptr;
constinit std::size_t spareCount = 0;

}  // namespace

void* Payload::operator new(std::size_t size) {
    if (spares == nullptr) return ::operator new(size);
    --spareCount;
    return std::exchange(spares, spares->next);
}

void Payload::operator delete(void* memory) noexcept {
    if (spareCount == kMostSpares) return ::operator delete(memory);
    ++spareCount;
    spares = new (memory) Spare{spares};
}

SparePayloads::~SparePayloads() {
    while (spares != nullptr) ::operator delete(std::exchange(spares, spares->next));
    spareCount = 0;
}

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
