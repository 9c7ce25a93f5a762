// Encoding and compressing the rows of a packet takes as long as reading them. While an answer of
// many packets is made, another thread packs blocks of rows as further ones are read; whoever
// makes the answer packs a block itself when that thread has not come to it. So an answer needs no
// helper to go on, and blocks in the making are few.

#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "mom/mom.h"

namespace kvx::detail {

/// The rows of one packet, packed; owned.
using PackedRows = std::unique_ptr<CVekAtom>;

/// Makes packets of what is in `rows`.
inline std::vector<PackedRows> pack(CVekTransport& rows, EVekTransHdr version) {
    rows.RTCreatePackets(version, true);
    const std::unique_ptr<CVekAtomVector> made(rows.RTEncodes());
    std::vector<PackedRows> packets(made->RAVSize());
    for (unsigned i = 0; i < made->RAVSize(); ++i) packets[i].reset(made->RAVGetValue(i));
    made->RAVReset();
    return packets;
}

/// A thread that packs blocks of rows for those that make answers. Any thread.
class Packer {
  public:
    /// The rows of some packets, and then the packets.
    class Block {
      public:
        Block(std::unique_ptr<CVekTransport> rows, EVekTransHdr version)
            : rows_(std::move(rows)), version_(version) {}

      private:
        friend class Packer;
        enum class State { Waiting, Begun, Packed };

        const std::unique_ptr<CVekTransport> rows_;
        const EVekTransHdr version_;
        std::vector<PackedRows> packets_;
        State state_ = State::Waiting;  // guarded by the mutex of the packer
    };

    /// With one processor there is no thread: nobody would gain by it. None either when the system
    /// has none to give.
    Packer() {
        if (std::thread::hardware_concurrency() < 2) return;
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error&) {
            // Whoever makes an answer packs its blocks.
        }
    }
    ~Packer() {
        {
            const std::lock_guard lock(mutex_);
            isEnding_ = true;
        }
        changed_.notify_all();
        if (thread_.joinable()) thread_.join();
    }
    Packer(const Packer&) = delete;
    Packer& operator=(const Packer&) = delete;

    void give(std::shared_ptr<Block> block) {
        const std::lock_guard lock(mutex_);
        if (!thread_.joinable()) return;
        waiting_.push_back(std::move(block));
        changed_.notify_all();
    }

    /// Takes the packets of a block, which it packs itself unless that has begun.
    std::vector<PackedRows> take(Block& block) {
        std::unique_lock lock(mutex_);
        if (block.state_ == Block::State::Waiting) work(block, lock);
        changed_.wait(lock, [&] { return block.state_ == Block::State::Packed; });
        return std::move(block.packets_);
    }

  private:
    void run() {
        std::unique_lock lock(mutex_);
        while (true) {
            changed_.wait(lock, [this] { return isEnding_ || !waiting_.empty(); });
            if (isEnding_) return;
            const std::shared_ptr<Block> block = std::move(waiting_.front());
            waiting_.pop_front();
            if (block->state_ == Block::State::Waiting) work(*block, lock);
        }
    }

    void work(Block& block, std::unique_lock<std::mutex>& lock) {
        block.state_ = Block::State::Begun;
        lock.unlock();
        auto packets = pack(*block.rows_, block.version_);
        lock.lock();
        block.packets_ = std::move(packets);
        block.state_ = Block::State::Packed;
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::deque<std::shared_ptr<Block>> waiting_;
    bool isEnding_ = false;
    std::thread thread_;
};

}  // namespace kvx::detail
