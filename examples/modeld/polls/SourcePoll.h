#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "examples/modeld/polls/FileWatch.h"
#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// The encoded notice of one changed row: the fields "@change" ("inserted", "changed" or "deleted")
/// and "@table", which cannot be column names, then the columns as in an answer. A changed row has
/// its new values, a deleted one its last.
std::string changeNotice(const std::string& table, Change change, const Row& row);

/// Publishes notices through the send queue of an engine, up to a hundred in a packet. Every packet
/// is its own batch, so that receivers need not know its sender. One thread at a time.
class ChangePublisher {
  public:
    /// `engine` must outlive the object. With an empty `subject` publishes nothing.
    ChangePublisher(CVekEngine& engine, std::string subject);

    void add(std::string_view notice);

    /// Queues the notices added since the last full packet.
    void flush();

    std::uint64_t published() const { return published_; }

  private:
    CVekEngine& engine_;
    const std::string subject_;
    CVekTransport transport_;
    unsigned waiting_ = 0;
    std::uint64_t published_ = 0;
};

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

    /// `watch` has the files as loaded. `engine` must outlive every execution of the poll.
    SourcePoll(CVekEngine& engine, FileWatch watch, Settings settings);

    void RTWDoPoll() override;
    __boolean RTWAddToPool() override { return RTWPollIsExecuting() ? FALSE : TRUE; }

  private:
    using Clock = std::chrono::steady_clock;

    void refresh(Store& store);
    void publish(Store& store);
    void dropOldNotices(Store& store);
    void tellTurns();
    void warnOnce(const std::optional<Refusal>& refusal);
    bool hasWork();

    CVekEngine& engine_;
    const Settings settings_;
    FileWatch watch_;
    std::int64_t queued_ = 0;  // number of the last queued notice
    unsigned losses_ = 0;      // number of daemon losses at that time
    Clock::time_point standingBySince_ = Clock::now();
    std::string warned_;  // the last warning of this look
    std::string warnedBefore_;
};

}  // namespace modeld
