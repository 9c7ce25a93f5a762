// Deficit round robin over time. A worker that is not in the line has a whole share at its next
// step, however often it comes: it cannot save up, and what it overdrew puts it into the line.

#include "rvd/Line.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kvx::rvd {

Nanoseconds Line::share() const {
    const auto wanting = waiting_.size() + std::max(cameNow_, cameLast_) + 1;
    return std::clamp(kRound / static_cast<Nanoseconds>(wanting), kShortest, kLongest);
}

void Line::nextTurn() {
    ++turn_;
    cameLast_ = std::exchange(cameNow_, 0);
}

void Line::come(Worker& worker) {
    if (worker.isWaiting_) return;
    ++cameNow_;
    worker.credit_ = std::min(worker.credit_ + share(), share());
    if (worker.credit_ <= 0) return join(worker);
    slice(worker, clock_());
}

void Line::join(Worker& worker) {
    if (worker.isWaiting_) return;
    worker.isWaiting_ = true;
    worker.place_ = waiting_.insert(waiting_.end(), &worker);
}

void Line::leave(Worker& worker) {
    if (!worker.isWaiting_) return;
    worker.isWaiting_ = false;
    waiting_.erase(worker.place_);
}

bool Line::isOver(std::size_t steps) {
    steps_ += steps;
    if (isOver_ || steps_ < kStepsPerLook) return isOver_;
    steps_ = 0;
    isOver_ = clock_() >= end_;
    return isOver_;
}

void Line::slice(Worker& worker, Nanoseconds now) {
    end_ = now + worker.credit_;
    steps_ = 0;
    isOver_ = false;
    worker.work();
    worker.credit_ -= clock_() - now;
}

// Everybody in the line has overdrawn: the least indebted may go on at once.
void Line::payBack() {
    Nanoseconds best = std::numeric_limits<Nanoseconds>::min();
    for (const Worker* worker : waiting_) best = std::max(best, worker->credit_);
    for (Worker* worker : waiting_) worker->credit_ += share() - best;
}

void Line::run() {
    const Nanoseconds begin = clock_();
    std::size_t passed = 0;  // workers that may not go on, one after another
    for (Nanoseconds now = begin; !waiting_.empty() && now < begin + kRun; now = clock_()) {
        Worker& worker = *waiting_.front();
        if (passed == waiting_.size()) {
            payBack();
            passed = 0;
        }
        leave(worker);
        worker.credit_ = std::min(worker.credit_ + share(), share());
        if (worker.credit_ <= 0) {
            join(worker);
            ++passed;
            continue;
        }
        passed = 0;
        slice(worker, now);
    }
}

}  // namespace kvx::rvd
