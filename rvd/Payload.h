#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "rv/wire/Limits.h"

namespace kvx::rvd {

/// One routed message: its bytes exist once, whatever the number of queues that hold it.
///
/// A payload begins as a view of the chunk read from a socket. Most are written before the chunk is
/// reused; `keep` copies the others, once for all queues. Loop thread only; the count is not
/// atomic.
class Payload {
  public:
    /// A view of bytes that are not owned: valid until they change or `keep` is called.
    static class PayloadRef borrow(wire::Bytes bytes);
    /// Takes ownership of `bytes`.
    static class PayloadRef own(std::vector<std::uint8_t> bytes);
    /// Copies `bytes`.
    static class PayloadRef copy(wire::Bytes bytes);

    [[nodiscard]] wire::Bytes bytes() const { return bytes_; }
    [[nodiscard]] std::size_t size() const { return bytes_.size(); }

    /// Copies the bytes of a borrowed payload, which invalidates views of them.
    void keep();

    [[nodiscard]] bool shared() const { return holders_ > 1; }

  private:
    friend class PayloadRef;
    Payload() = default;

    std::uint32_t holders_ = 0;
    wire::Bytes bytes_;
    std::unique_ptr<std::uint8_t[]> copy_;
    std::vector<std::uint8_t> owned_;
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

}  // namespace kvx::rvd
