#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "rvd/Payload.h"

namespace kvx::rvd {

/// An object whose output is written when a batch ends.
class BatchMember {
  public:
    virtual ~BatchMember() = default;
    /// Writes the queued output. May add members to the batch.
    virtual void flush() = 0;

  private:
    friend class Batch;
    bool inBatch_ = false;
};

/// The effects of one turn of the loop: the messages routed, and the members with output.
///
/// Every libuv callback that can cause output calls `end` last, so that many messages are written
/// in one system call and nothing borrows the read buffer between callbacks. A member must stay
/// alive until its batch has ended. Loop thread only.
class Batch {
  public:
    /// Bytes read from one socket at a time.
    static constexpr std::size_t kReadBuffer = 256 * 1024;

    /// The buffer of the next read, shared by all connections: messages that outlive the batch are
    /// copied.
    [[nodiscard]] char* readBuffer() { return readBuffer_.get(); }

    /// Adds a message being routed, which may borrow the read buffer.
    void hold(const PayloadRef& message) { routed_.push_back(message); }

    /// Adds a member with output.
    void add(BatchMember& member);

    /// Flushes all members, then copies the messages that are still queued.
    void end();

  private:
    std::vector<BatchMember*> members_;
    std::vector<BatchMember*> flushing_;  // those being flushed
    std::vector<PayloadRef> routed_;
    std::unique_ptr<char[]> readBuffer_ = std::make_unique_for_overwrite<char[]>(kReadBuffer);
};

}  // namespace kvx::rvd
