#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "examples/modeld/polls/BlockingPoll.h"
#include "mom/mom.h"

namespace modeld {

/// Moves SQLite's write-ahead log into the database file, on a thread of its own.
class CheckpointPoll : public BlockingPoll {
  public:
    /// `seconds` between two checkpoints.
    CheckpointPoll(CVekBlockedWorkMgr& blockedWork, std::string database, int seconds);

    /// Waits for a running checkpoint.
    ~CheckpointPoll() override;

  protected:
    bool ask(std::shared_ptr<Answer> answer) override;
    void answered() override;
    void gaveUp() override;

  private:
    struct Errand;

    static void run(void* item, void* poll);
    void checkpoint();

    const std::string database_;
    std::atomic<bool> isRunning_{false};
    // Written before the answer arrives, read after it.
    std::string outcome_;
    bool failed_ = false;
    // Last, so that its thread ends before the members it uses are destroyed.
    CVekServPool thread_;
};

}  // namespace modeld
