#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "examples/modeld/polls/FileWatch.h"
#include "examples/modeld/store/Store.h"
#include "mom/mom.h"

namespace modeld {

/// The record that tells of one changed row, encoded: the fields "@change" ("inserted", "changed"
/// or "deleted") and "@table", which no column can be named, then the columns as in an answer. A
/// changed row has its new values, a deleted one its last.
std::string changeNotice(const std::string& table, Change change, const Row& row);

/// Publishes notices through the send queue of an engine, up to a hundred in a packet. Every packet
/// is a batch of its own, so that receivers need not know who sent it. Any one thread.
class ChangePublisher {
  public:
    /// `engine` must outlive the object. An empty `subject` publishes nothing.
    ChangePublisher(CVekEngine& engine, std::string subject);

    void add(std::string_view notice);

    /// Queues what has been added since the last full packet.
    void flush();

    std::uint64_t published() const { return published_; }

  private:
    CVekEngine& engine_;
    const std::string subject_;
    CVekTransport transport_;
    unsigned waiting_ = 0;
    std::uint64_t published_ = 0;
};

/// Keeps a table in line with the files that it was loaded from, and publishes the rows that
/// change.
///
/// Every member of a group does the first, in its own database or in a shared one; only the active
/// member publishes. What a standby has found it keeps for a while, in case it must publish it.
class SourcePoll : public CVekTimedWork {
  public:
    struct Settings {
        std::string database;
        Source source;
        std::string subject;  ///< where changes are published; empty for nowhere
        int seconds = 5;      ///< between two looks at the files
    };

    /// `watch` knows the files as they were loaded. `engine` must outlive the running of the poll.
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
    std::int64_t queued_ = 0;  // number of the last notice that went into the send queue
    unsigned losses_ = 0;      // of the daemon, when it did
    Clock::time_point standingBySince_ = Clock::now();
    std::string warned_;  // the last warning of this look
    std::string warnedBefore_;
};

}  // namespace modeld
