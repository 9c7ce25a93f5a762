#pragma once

#include <cstdint>
#include <utility>

#include "rv/wire/Buffer.h"
#include "rvd/DelayMark.h"
#include "rvd/MemoryAccount.h"

namespace kvx::rvd {

/// One routed message: its bytes exist once, whatever the number of queues that hold it.
///
/// A payload begins as a view of the chunk read from a socket. Most are written before the chunk is
/// reused; `keep` copies the others, once for all queues. The bytes that it owns are charged to an
/// account once. Loop thread only; the count is not atomic.
class Payload {
  public:
    /// A view of bytes that are not owned: valid until they change or `keep` is called.
    static class PayloadRef borrow(wire::Bytes bytes);
    /// Takes ownership of `bytes`.
    static class PayloadRef own(wire::Buffer bytes);
    /// Copies `bytes`.
    static class PayloadRef copy(wire::Bytes bytes);

    [[nodiscard]] wire::Bytes bytes() const { return bytes_; }
    [[nodiscard]] std::size_t size() const { return bytes_.size(); }

    /// Copies the bytes of a borrowed payload, which invalidates views of them. Throws
    /// `std::bad_alloc` and changes nothing.
    void keep();

    /// Gives up the bytes, which nobody has kept in time. Queues drop it.
    void lose() { bytes_ = {}; }
    [[nodiscard]] bool isLost() const { return bytes_.empty(); }

    /// Who measures how long it takes.
    [[nodiscard]] DelayMark delayMark() const { return delayMark_; }
    void setDelayMark(DelayMark mark) { delayMark_ = mark; }

    /// Charges the owned bytes to `account` from now on, which must outlive this object. Once is
    /// enough.
    void chargeTo(MemoryAccount& account) {
        if (account_ != nullptr) return;
        account_ = &account;
        if (isCharged()) account.charge(cost());
    }

    /// Charged with the bytes: this record, and two blocks of the allocator.
    static constexpr std::size_t kCost = 96;

    [[nodiscard]] bool shared() const { return holders_ > 1; }

    /// From a few that are kept: there is one for each message.
    static void* operator new(std::size_t size);
    static void operator delete(void* memory) noexcept;

  private:
    friend class PayloadRef;
    Payload() = default;
    ~Payload() {
        if (isCharged()) account_->discharge(cost());
    }
    [[nodiscard]] bool isCharged() const { return account_ != nullptr && owned_.capacity() != 0; }
    [[nodiscard]] std::size_t cost() const { return owned_.capacity() + kCost; }

    std::uint32_t holders_ = 0;
    wire::Bytes bytes_;
    wire::Buffer owned_;
    MemoryAccount* account_ = nullptr;
    DelayMark delayMark_;
};

/// Holds a payload. Null when default-constructed or moved from.
class PayloadRef {
  public:
    PayloadRef() = default;
    PayloadRef(const PayloadRef& other) noexcept : payload_(other.payload_) { retain(); }
    PayloadRef(PayloadRef&& other) noexcept : payload_(std::exchange(other.payload_, nullptr)) {}
    PayloadRef& operator=(PayloadRef other) noexcept {
        std::swap(payload_, other.payload_);
        return *this;
    }
    ~PayloadRef() {
        if (payload_ != nullptr && --payload_->holders_ == 0) delete payload_;
    }

    explicit operator bool() const { return payload_ != nullptr; }
    Payload* operator->() const { return payload_; }
    Payload& operator*() const { return *payload_; }

  private:
    friend class Payload;
    explicit PayloadRef(Payload* payload) noexcept : payload_(payload) { retain(); }
    void retain() {
        if (payload_ != nullptr) ++payload_->holders_;
    }

    Payload* payload_ = nullptr;
};

/// Gives back the memory that is kept of payloads that are gone. One of a process, which outlives
/// them all.
class SparePayloads {
  public:
    SparePayloads() = default;
    SparePayloads(const SparePayloads&) = delete;
    SparePayloads& operator=(const SparePayloads&) = delete;
    ~SparePayloads();
};

}  // namespace kvx::rvd
