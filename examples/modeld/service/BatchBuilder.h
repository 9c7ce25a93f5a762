#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "examples/modeld/service/RowRecord.h"
#include "mom/mom.h"

namespace modeld {

/// Gathers the rows of one answer, and encodes and compresses full blocks of them on helper threads
/// while the caller reads on.
///
/// What comes out is what one transport would make of a record a row: same packets, same order. A
/// small answer costs no thread: the helpers start with the second full block. A bounded number of
/// blocks waits for them; the caller does what is beyond, so that memory stays bounded and a
/// machine of one processor needs no helper at all. One thread at a time may call.
class BatchBuilder {
  public:
    /// As many helpers as keep the processors busy, but never many for one answer.
    static unsigned usualHelpers();

    explicit BatchBuilder(EVekTransHdr version, unsigned helpers = usualHelpers());

    /// Waits for the helpers; blocks that none has begun are dropped.
    ~BatchBuilder();
    BatchBuilder(const BatchBuilder&) = delete;
    BatchBuilder& operator=(const BatchBuilder&) = delete;

    void add(const Row& row);

    /// Moves the whole batch to `transport`, ready for `RTCreatePackets`. Called once, last.
    void finish(CVekTransport& transport);

  private:
    struct Block {
        RowBlock rows;
        CVekTransport records{nullptr};
    };

    void closeBlock();
    void startHelpers();
    void help();
    void prepare(Block& block) const;
    void prepareWaiting(std::size_t atMost);
    Block* waitForBlock();
    Block* takeBeyond(std::size_t atMost);
    void stopHelpers();

    // Constant after construction.
    const EVekTransHdr version_;
    const unsigned helpers_;

    // The caller's thread only.
    std::unique_ptr<Block> open_;
    std::vector<std::thread> threads_;

    // Guarded by mutex_. A block belongs to whoever began it until the helpers are stopped.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<Block>> closed_;  // in the order of the rows
    std::size_t begun_ = 0;  // blocks at the front of closed_ that somebody has begun
    bool stopping_ = false;
};

}  // namespace modeld
