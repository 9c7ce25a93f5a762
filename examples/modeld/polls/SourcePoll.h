#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>

#include "examples/modeld/polls/FileWatch.h"
#include "examples/modeld/store/Store.h"
#include "kvx/Changes.h"
#include "mom/mom.h"

namespace modeld {

/// The encoded notice of one changed row: the fields "@change" ("inserted", "changed" or "deleted")
/// and "@table", which cannot be column names, then the columns as in an answer. A changed row has
/// its new values, a deleted one its last.
std::string changeNotice(const std::string& table, Change change, const Row& row);

/// Keeps a table equal to its source files, and publishes the rows that change.
///
/// Every member of a group updates its own or the shared database; only the active member
/// publishes. A standby keeps its notices for a while, in case it takes over.
class SourcePoll : public CVekTimedWork {
  public:
    struct Settings {
        std::string database;
        Source source;
        std::string subject;  ///< the subject of change notices; empty for none
        int seconds = 5;      ///< between two looks at the files
    };

    /// `watch` has the files as loaded. `engine` and `changes`, which publishes, must outlive every
    /// execution of the poll.
    SourcePoll(CVekEngine& engine, kvx::Changes& changes, FileWatch watch, Settings settings);

    void RTWDoPoll() override;
    __boolean RTWAddToPool() override { return RTWPollIsExecuting() ? FALSE : TRUE; }

  private:
    using Clock = std::chrono::steady_clock;

    void refresh(Store& store);
    void publish(Store& store);
    bool commit(std::span<const std::string> notices);
    void dropOldNotices(Store& store);
    void tellTurns();
    void warnOnce(const std::optional<Refusal>& refusal);
    bool hasWork();

    CVekEngine& engine_;
    kvx::Changes& changes_;
    const Settings settings_;
    FileWatch watch_;
    std::int64_t queued_ = 0;  // number of the last queued notice
    unsigned losses_ = 0;      // number of daemon losses at that time
    Clock::time_point standingBySince_ = Clock::now();
    std::string warned_;  // the last warning of this look
    std::string warnedBefore_;
};

}  // namespace modeld
