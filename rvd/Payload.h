#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "rv/wire/Limits.h"

namespace kvx::rvd {

/// One message on its way: its bytes exist once, however many queues hold it.
///
/// A payload begins as a view of the chunk that was read from a socket. Most are written out before
/// the chunk is used again; those that still wait then are given memory of their own by `keep`,
/// once for all queues. Loop thread only; counted by hand, since an atomic count would buy nothing.
class Payload {
  public:
    /// A view of bytes that somebody else owns: valid until they change or `keep` is called.
    static class PayloadRef borrow(wire::Bytes bytes);
    /// Takes ownership of `bytes`.
    static class PayloadRef own(std::vector<std::uint8_t> bytes);
    /// Copies `bytes`.
    static class PayloadRef copy(wire::Bytes bytes);

    [[nodiscard]] wire::Bytes bytes() const { return bytes_; }
    [[nodiscard]] std::size_t size() const { return bytes_.size(); }

    /// Gives a borrowed payload memory of its own. Its bytes move: views of it go stale.
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
