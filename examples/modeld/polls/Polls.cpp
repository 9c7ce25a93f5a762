#include "examples/modeld/polls/Polls.h"

#include <fmt/format.h>

#include <fstream>
#include <string>
#include <utility>

#include "examples/modeld/polls/BlockingPoll.h"
#include "examples/modeld/polls/CheckpointPoll.h"
#include "examples/modeld/polls/SourcePoll.h"
#include "examples/modeld/service/Log.h"

namespace modeld {

namespace {

constexpr unsigned int kTickMs = 1000;
constexpr unsigned int kTickThreads = 1;
constexpr unsigned int kWorkThreads = 2;
constexpr unsigned int kAnswerTicks = 30;  // time-out of a blocked poll

// The resident memory of the process in megabytes; 0 if unknown.
double residentMegabytes() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        double kilobytes = 0;
        if (word == "VmRSS:" && status >> kilobytes) return kilobytes / 1024;
    }
    return 0;
}

// Logs the service's counters: at level info when they have changed, else debug.
class StatisticsPoll : public CVekTimedWork {
  public:
    // Both must outlive every execution of the poll. `seconds` between two lines.
    StatisticsPoll(CVekEngine& engine, const ModelService& service, int seconds);

    void RTWDoPoll() override;
    __boolean RTWAddToPool() override { return RTWPollIsExecuting() ? FALSE : TRUE; }

  private:
    CVekEngine& engine_;
    const ModelService& service_;
    std::uint64_t told_ = 0;  // answers at the last line
};

StatisticsPoll::StatisticsPoll(CVekEngine& engine, const ModelService& service, int seconds)
    : engine_(engine), service_(service) {
    RTWSetName(new CVekAtom("statistics"));
    RTWSetFrequency(seconds);
}

void StatisticsPoll::RTWDoPoll() {
    const auto statistics = service_.statistics();
    const std::string line = fmt::format(
        "{} questions answered, {} refused, {} rows sent; {} questions and {} packets wait; "
        "{:.1f} MB in memory",
        statistics.answered, statistics.refused, statistics.rows, statistics.waiting,
        engine_.RESendQueueLength(), residentMegabytes());
    const std::uint64_t done = statistics.answered + statistics.refused;
    if (done != told_) {
        Log::info("{}", line);
    } else {
        Log::debug("{}", line);
    }
    told_ = done;
}

}  // namespace

Polls::Polls(kvx::Service& bus, const ModelService& service, FileWatch watch,
             const Settings& settings)
    : manager_(std::make_unique<CVekTimedWorkMgr>(&bus.engine(), kTickThreads, kTickMs,
                                                  kWorkThreads, runTimedWorker, FALSE)) {
    blockedWork_ = std::make_unique<CVekBlockedWorkMgr>(*manager_, kAnswerTicks);
    manager_->RTWMSetBlockedWorkMgr(blockedWork_.get());
    if (settings.watchSource > 0) {
        add(std::make_unique<SourcePoll>(
            bus.engine(), bus.changes(), std::move(watch),
            SourcePoll::Settings{settings.database, settings.source, settings.notifySubject,
                                 settings.watchSource}));
    }
    if (settings.statistics > 0) {
        add(std::make_unique<StatisticsPoll>(bus.engine(), service, settings.statistics));
    }
    if (settings.checkpoint > 0) {
        add(std::make_unique<CheckpointPoll>(*blockedWork_, settings.database,
                                             settings.checkpoint));
    }
    manager_->RTWMDistributePolls();
}

Polls::~Polls() = default;

void Polls::add(std::unique_ptr<CVekTimedWork> poll) {
    if (manager_->RTWMAddPoll(poll.get()) != kvx::kOk) {
        Log::error("the poll '{}' cannot be added", poll->RTWName()->RAString());
        return;
    }
    polls_.push_back(std::move(poll));
}

}  // namespace modeld
