// Compression is most of the work of a long answer, and no packet can be sent before the last block
// is compressed, since every packet has the number of packets.
//
// Each block has its own transport and belongs to one thread at a time. The caller fills the open
// one with copies of rows, not with encoded records: thousands of small allocations freed on
// another thread would cost more than the second thread saves. A closed one belongs to the thread
// that first advances `begun_` past it; once the helpers are stopped all belong to the caller.
// Blocks stay in place in `closed_`, so the records keep their order whichever thread compresses
// them.

#include "examples/modeld/service/BatchBuilder.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace modeld {

namespace {

constexpr std::size_t kMostWaiting = 8;    // blocks
constexpr unsigned kMostHelpers = 3;       // threads
constexpr std::size_t kBlocksForHelp = 2;  // with fewer a thread costs more than it saves

}  // namespace

unsigned BatchBuilder::usualHelpers() {
    const unsigned processors = std::thread::hardware_concurrency();
    return processors > 1 ? std::min(processors - 1, kMostHelpers) : 0;
}

BatchBuilder::BatchBuilder(EVekTransHdr version, unsigned helpers)
    : version_(version), helpers_(helpers) {}

BatchBuilder::~BatchBuilder() {
    {
        const std::lock_guard guard(mutex_);
        begun_ = closed_.size();
    }
    stopHelpers();
}

void BatchBuilder::add(const Row& row) {
    if (!open_) open_ = std::make_unique<Block>();
    open_->rows.add(row);
    if (open_->rows.size() == VEK_TRANS_V1_RECORDS) closeBlock();
}

void BatchBuilder::finish(CVekTransport& transport) {
    prepareWaiting(0);
    stopHelpers();
    if (open_) {
        prepare(*open_);
        closed_.push_back(std::move(open_));
    }
    for (const auto& block : closed_) transport.RTTakePayloads(block->records, version_);
}

void BatchBuilder::closeBlock() {
    std::size_t closed = 0;
    {
        const std::lock_guard guard(mutex_);
        closed_.push_back(std::move(open_));
        closed = closed_.size();
    }
    changed_.notify_one();
    if (closed == kBlocksForHelp) startHelpers();
    prepareWaiting(threads_.empty() && closed >= kBlocksForHelp ? 0 : kMostWaiting);
}

void BatchBuilder::startHelpers() {
    try {
        while (threads_.size() < helpers_) threads_.emplace_back([this] { help(); });
    } catch (const std::system_error&) {
        // No further thread could be started: the running ones and the caller do the work.
    }
}

void BatchBuilder::prepare(Block& block) const {
    block.rows.encode(block.records);
    block.rows = RowBlock();
    block.records.RTPreparePayloads(version_);
}

void BatchBuilder::help() {
    while (Block* block = waitForBlock()) prepare(*block);
}

BatchBuilder::Block* BatchBuilder::waitForBlock() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return stopping_ || begun_ < closed_.size(); });
    return begun_ < closed_.size() ? closed_[begun_++].get() : nullptr;
}

// Prepares blocks on the caller's thread until at most `atMost` wait.
void BatchBuilder::prepareWaiting(std::size_t atMost) {
    while (Block* block = takeBeyond(atMost)) prepare(*block);
}

BatchBuilder::Block* BatchBuilder::takeBeyond(std::size_t atMost) {
    const std::lock_guard guard(mutex_);
    return closed_.size() - begun_ > atMost ? closed_[begun_++].get() : nullptr;
}

void BatchBuilder::stopHelpers() {
    {
        const std::lock_guard guard(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
}

}  // namespace modeld
