// A checkpoint may wait for long queries, so it runs on this poll's own thread while the worker is
// parked. At most one runs: a poll that is due while the last one still runs, after its time-out,
// only warns. The outcome is written before the answer arrives and read after it.

#include "examples/modeld/polls/CheckpointPoll.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>

#include "examples/modeld/service/Log.h"
#include "examples/modeld/store/Store.h"

namespace modeld {

struct CheckpointPoll::Errand {
    std::shared_ptr<Answer> answer;
};

CheckpointPoll::CheckpointPoll(CVekBlockedWorkMgr& blockedWork, std::string database, int seconds)
    : BlockingPoll(blockedWork), database_(std::move(database)), thread_(1, this) {
    RTWSetName(new CVekAtom("checkpoint"));
    RTWSetFrequency(seconds);
    thread_.RSPLaunchThreads(run);
}

CheckpointPoll::~CheckpointPoll() {
    thread_.RSPStopThreads();
    while (void* errand = thread_.RSPTakeWorkDetail()) {
        const std::unique_ptr<Errand> never(static_cast<Errand*>(errand));
    }
}

bool CheckpointPoll::ask(std::shared_ptr<Answer> answer) {
    if (isRunning_.exchange(true)) {
        Log::warning("the last checkpoint still runs");
        return false;
    }
    auto errand = std::make_unique<Errand>(Errand{std::move(answer)});
    if (thread_.RSPAddWorkDetail(errand.get()) == kvx::kOk) {
        static_cast<void>(errand.release());
        return true;
    }
    isRunning_ = false;
    return false;
}

void CheckpointPoll::run(void* item, void* poll) {
    const std::unique_ptr<Errand> errand(static_cast<Errand*>(item));
    auto* self = static_cast<CheckpointPoll*>(poll);
    self->checkpoint();
    self->isRunning_ = false;
    errand->answer->arrive();
}

void CheckpointPoll::checkpoint() {
    const auto begin = std::chrono::steady_clock::now();
    int framesLeft = 0;
    Refusal refusal;
    const auto store = Store::open(database_, Store::Access::ReadWrite, refusal);
    const auto problem = store ? store->checkpoint(framesLeft) : std::optional(refusal);
    const std::chrono::duration<double, std::milli> spent =
        std::chrono::steady_clock::now() - begin;
    failed_ = problem.has_value();
    outcome_ = problem ? problem->message
                       : fmt::format("{} frames left, {:.1f} ms", framesLeft, spent.count());
}

void CheckpointPoll::answered() {
    if (failed_) {
        Log::warning("checkpoint: {}", outcome_);
    } else {
        Log::debug("checkpoint: {}", outcome_);
    }
}

void CheckpointPoll::gaveUp() {
    Log::warning("checkpoint: not done in time");
}

}  // namespace modeld
