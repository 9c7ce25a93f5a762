#pragma once

#include <vector>

#include "foundation/CVekServPool.h"

/// A pool whose items stay registered: every kick runs each of them once more. Any thread.
///
/// Kicks are never merged: a kick while earlier runs still wait queues its own runs behind them.
/// Two runs of one item may overlap when there are several threads.
class KVX_API CVekTimedPool : public CVekServPool {
  public:
    explicit CVekTimedPool(int threads, void* context = nullptr);
    ~CVekTimedPool() override;

    /// Registers `item` for every kick from now on and returns 1; -220552 for null, -220553 without
    /// memory.
    int RSPAddWorkDetail(void* item) override;

    /// Cancels the next waiting run and returns its item, which stays registered.
    void* RSPTakeWorkDetail() override;

    /// Queues one run of every registered item, in the order of registration. Without memory for
    /// all of them it queues none and reports -220553.
    void RTPKickThreads();

  private:
    int queueRegistered();

    std::vector<void*> m_registered;  // guarded by the work lock
};
