#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "rvd/Payload.h"

namespace kvx::rvd {

/// Somebody whose output is written when a batch ends.
class BatchMember {
  public:
    virtual ~BatchMember() = default;
    /// Writes what waits. May add members to the batch.
    virtual void flush() = 0;

  private:
    friend class Batch;
    bool inBatch_ = false;
};

/// What one turn of the loop causes: which messages were routed, and who has something to write.
///
/// Every libuv callback that can cause output calls `end` last, so that many messages go out in one
/// system call and between callbacks nothing borrows the read buffer. A member must stay alive
/// until the batch in which it stands has ended. Loop thread only.
class Batch {
  public:
    /// Bytes taken from one socket at a time.
    static constexpr std::size_t kReadBuffer = 256 * 1024;

    /// Where the next read goes. One buffer serves all: what outlives the batch is copied.
    [[nodiscard]] char* readBuffer() { return readBuffer_.get(); }

    /// `message` is being routed, and may borrow the read buffer.
    void hold(const PayloadRef& message) { routed_.push_back(message); }

    /// `member` has something to write.
    void add(BatchMember& member);

    /// Flushes all members, then gives the messages that still wait memory of their own.
    void end();

  private:
    std::vector<BatchMember*> members_;
    std::vector<BatchMember*> flushing_;  // those whose turn it is
    std::vector<PayloadRef> routed_;
    std::unique_ptr<char[]> readBuffer_ = std::make_unique_for_overwrite<char[]>(kReadBuffer);
};

}  // namespace kvx::rvd
