#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "examples/modeld/polls/BlockingPoll.h"
#include "mom/mom.h"

namespace modeld {

/// Moves what SQLite has logged into the database file. That may have to wait for long queries, so
/// a thread of its own does it and the poll is parked meanwhile.
class CheckpointPoll : public BlockingPoll {
  public:
    /// `seconds` between two checkpoints.
    CheckpointPoll(CVekBlockedWorkMgr& blockedWork, std::string database, int seconds);

    /// Waits for a checkpoint that runs.
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
    // Last, so that its thread ends before anything it uses.
    CVekServPool thread_;
};

}  // namespace modeld
