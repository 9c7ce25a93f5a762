#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "rvd/MemoryAccount.h"
#include "rvd/Payload.h"

namespace kvx::rvd {

/// An object whose output is written when a batch ends.
class BatchMember {
  public:
    virtual ~BatchMember() = default;
    /// Writes the queued output. May add members to the batch.
    virtual void flush() = 0;
    /// `flush` has thrown `std::bad_alloc`. May add members to the batch.
    virtual void outOfMemory() noexcept = 0;

  private:
    friend class Batch;
    BatchMember* next_ = nullptr;
    bool inBatch_ = false;
};

/// The effects of one turn of the loop: the messages routed, and the members with output.
///
/// Every libuv callback that can cause output calls `end` or `goOn` last, so that many messages are
/// written in one system call and nothing borrows the read buffer between callbacks. A member must
/// stay alive until its batch has ended. Loop thread only.
class Batch {
  public:
    /// `account` must outlive this object.
    explicit Batch(MemoryAccount& account) : account_(account) {}

    /// Bytes read from one socket at a time, at most.
    static constexpr std::size_t kReadAtOnce = 256 * 1024;

    /// Where the next read goes, shared by all connections: messages that outlive the batch are
    /// copied.
    [[nodiscard]] char* readBuffer() { return readBuffer_.get() + read_; }

    /// Adds a message being routed, which may borrow the read buffer. Throws `std::bad_alloc`.
    void hold(const PayloadRef& message) { routed_.push_back(message); }

    /// Adds a member with output. Needs no memory.
    void add(BatchMember& member) noexcept;

    /// Whether the member will be flushed.
    [[nodiscard]] static bool has(const BatchMember& member) { return member.inBatch_; }

    /// The batch goes on with the next read, behind the last one, which had so many bytes: without
    /// room for that, the messages routed so far that are still queued are copied. Ends it when the
    /// limit of memory is passed.
    void goOn(std::size_t bytes) noexcept;

    /// Flushes all members, copies the messages that are still queued, and takes from the largest
    /// holders what is above the limit of memory. Without memory for a copy the message is lost.
    void end() noexcept;

  private:
    void flushMembers() noexcept;
    void keepRouted() noexcept;

    MemoryAccount& account_;
    BatchMember* first_ = nullptr;  // members in the order of adding
    BatchMember* last_ = nullptr;
    std::vector<PayloadRef> routed_;
    static constexpr std::size_t kReadBuffer = 4 * kReadAtOnce;
    std::unique_ptr<char[]> readBuffer_ = std::make_unique_for_overwrite<char[]>(kReadBuffer);
    std::size_t read_ = 0;  // bytes of it that messages may still be in
};

}  // namespace kvx::rvd
