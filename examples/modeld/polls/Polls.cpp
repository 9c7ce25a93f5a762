#include "examples/modeld/polls/Polls.h"

#include <utility>

#include "examples/modeld/polls/BlockingPoll.h"
#include "examples/modeld/polls/CheckpointPoll.h"
#include "examples/modeld/polls/SourcePoll.h"
#include "examples/modeld/polls/StatisticsPoll.h"
#include "examples/modeld/service/Log.h"

namespace modeld {

namespace {

constexpr unsigned int kTickMs = 1000;
constexpr unsigned int kTickThreads = 1;
constexpr unsigned int kWorkThreads = 2;
constexpr unsigned int kAnswerTicks = 30;  // how long a blocked poll waits for its answer

}  // namespace

Polls::Polls(CVekEngine& engine, const ModelService& service, FileWatch watch,
             const Settings& settings)
    : manager_(std::make_unique<CVekTimedWorkMgr>(&engine, kTickThreads, kTickMs, kWorkThreads,
                                                  runTimedWorker, FALSE)) {
    blockedWork_ = std::make_unique<CVekBlockedWorkMgr>(*manager_, kAnswerTicks);
    manager_->RTWMSetBlockedWorkMgr(blockedWork_.get());
    if (settings.watchSource > 0) {
        add(std::make_unique<SourcePoll>(
            engine, std::move(watch),
            SourcePoll::Settings{settings.database, settings.source, settings.notifySubject,
                                 settings.watchSource}));
    }
    if (settings.statistics > 0) {
        add(std::make_unique<StatisticsPoll>(engine, service, settings.statistics));
    }
    if (settings.checkpoint > 0) {
        add(std::make_unique<CheckpointPoll>(*blockedWork_, settings.database,
                                             settings.checkpoint));
    }
    manager_->RTWMDistributePolls();
}

Polls::~Polls() = default;

void Polls::add(std::unique_ptr<CVekTimedWork> poll) {
    if (manager_->RTWMAddPoll(poll.get()) != 1) {
        Log::error("the poll '{}' cannot be added", poll->RTWName()->RAString());
        return;
    }
    polls_.push_back(std::move(poll));
}

}  // namespace modeld
