#pragma once

#include "foundation/foundation.h"
#include "mom/timed/CVekTimedWork.h"
#include "mom/timed/CVekTimedWorkMgr.h"
#include "mom/timed/CVekTimedWorker.h"

namespace kvx::test {

using Names = std::vector<std::string>;

/// A poll that counts its executions and runs what a test says when it executes, when it is asked
/// whether it may be queued, and when it is marked as no longer executing.
class CountingPoll : public CVekTimedWork {
  public:
    CountingPoll(const std::string& name, int frequency) {
        RTWSetName(new CVekAtom(name.c_str()));
        RTWSetFrequency(frequency);
    }

    void RTWDoPoll() override {
        ++runs;
        if (onRun) onRun();
    }
    __boolean RTWAddToPool() override {
        if (onAsked) onAsked();
        return accepts ? TRUE : FALSE;
    }
    void RTWSetPollIsExecuting(bool executing) override {
        CVekTimedWork::RTWSetPollIsExecuting(executing);
        if (!executing && onFree) onFree();
    }

    std::string name() { return RTWName()->RAString(); }

    std::atomic<int> runs = 0;
    std::atomic<bool> accepts = true;
    std::function<void()> onRun, onAsked, onFree;
};

/// A manager without threads: what would be queued is written down, by name, and dropped. Ticks of
/// distributions are the test's to call.
class RecordingMgr : public CVekTimedWorkMgr {
  public:
    RecordingMgr() : CVekTimedWorkMgr(nullptr, 0, 1000, 0, nullptr, FALSE) {}

    using CVekTimedWorkMgr::RTWMAddPollWork;
    int RTWMAddPollWork(CVekTimedWorker* worker) override {
        queued.emplace_back(worker->RTWName());
        if (worker->RTWStatus() == RTW_STATUS_NEW) delete worker;
        return 1;
    }

    Names takeQueued() { return std::exchange(queued, {}); }

    Names queued;
};

}  // namespace kvx::test
