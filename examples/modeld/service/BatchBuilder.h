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

/// Collects the rows of one answer, and encodes and compresses full blocks on helper threads while
/// the caller reads on.
///
/// The result is that of one transport with one record per row: same packets, same order. A small
/// answer needs no thread: the helpers start with the second full block. A bounded number of blocks
/// waits for them; the caller prepares further ones itself, so memory is bounded and a machine with
/// one processor needs no helper. One thread at a time.
class BatchBuilder {
  public:
    /// The number of helpers for this machine's processors, bounded per answer.
    static unsigned usualHelpers();

    explicit BatchBuilder(EVekTransHdr version, unsigned helpers = usualHelpers());

    /// Waits for the helpers; drops blocks not begun.
    ~BatchBuilder();
    BatchBuilder(const BatchBuilder&) = delete;
    BatchBuilder& operator=(const BatchBuilder&) = delete;

    void add(const Row& row);

    /// Moves the whole batch to `transport`, ready for `RTCreatePackets`. Call it once, last.
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

    // Guarded by mutex_. A block belongs to the thread that began it until the helpers are stopped.
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::unique_ptr<Block>> closed_;  // in the order of the rows
    std::size_t begun_ = 0;                       // number of begun blocks at the front of closed_
    bool stopping_ = false;
};

}  // namespace modeld
