#pragma once

#include <cstdint>

#include "rv/error/RvStatus.h"
#include "rv/session/rv_Session.h"

class RvSession;

namespace kvx::detail {
struct SignalState;
}

/// State shared by a session and the objects made from it; outlives each of them.
struct RvSessionBlock {
    rv_Session handle = nullptr;  ///< null once the session is closed, or closing
    rv_Session core = nullptr;    ///< for removing registrations; an invalid handle once closed
    RvSession* owner = nullptr;   ///< null once the session object is destroyed
    RvStatus* status = nullptr;   ///< owned: the outcome of the latest operation
    std::int32_t refs = 0;        ///< the session itself and every live object made from it

    /// States of signals without a callback, which the core references until the session is closed.
    /// Owned, a singly linked list.
    kvx::detail::SignalState* abandonedSignals = nullptr;
};

namespace kvx::detail {

/// Null without memory.
RvSessionBlock* newSessionBlock();

/// Drops one reference. Frees the block when that was the last one and its session is gone.
void releaseBlock(RvSessionBlock* block);

/// Frees a list of abandoned signal states.
void freeSignals(SignalState* first);

/// Keeps a block alive while user code runs.
class BlockHold {
  public:
    explicit BlockHold(RvSessionBlock& block) : block_(&block) { ++block.refs; }
    BlockHold(const BlockHold&) = delete;
    BlockHold& operator=(const BlockHold&) = delete;
    ~BlockHold() { releaseBlock(block_); }

  private:
    RvSessionBlock* block_;
};

}  // namespace kvx::detail
