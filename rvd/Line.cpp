// In the line, deficit round robin over time. Beside it credit that grows with time and is spent by
// all work: who has some is not delayed by those who work without a pause.

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
    wrote_ = 0;
    cameLast_ = std::exchange(cameNow_, 0);
}

void Line::addCredit(Worker& worker, Nanoseconds now) {
    const Nanoseconds since = now - std::exchange(worker.creditAt_, now);
    worker.credit_ = std::min(worker.credit_ + since / kSpareParts, kBurst);
}

void Line::come(Worker& worker) {
    if (worker.isWaiting_) return;
    ++cameNow_;
    const Nanoseconds now = clock_();
    addCredit(worker, now);
    const bool isAlone = waiting_.empty() && std::max(cameNow_, cameLast_) <= 1;
    if (isAlone) {
        slice(worker, now, kAlone);
    } else if (worker.credit_ >= kEnough) {
        slice(worker, now, std::min(worker.credit_, share()));
    } else {
        join(worker);
    }
}

void Line::join(Worker& worker) {
    if (worker.isWaiting_) return;
    worker.isWaiting_ = true;
    waiting_.splice(waiting_.end(), worker.self_);
}

void Line::leave(Worker& worker) {
    if (!worker.isWaiting_) return;
    worker.isWaiting_ = false;
    worker.self_.splice(worker.self_.begin(), waiting_, worker.place_);
}

bool Line::isOver(std::size_t steps) {
    steps_ += steps;
    if (isOver_ || steps_ < kStepsPerLook) return isOver_;
    steps_ = 0;
    isOver_ = usedUntil(clock_()) >= length_;
    return isOver_;
}

void Line::blame(Worker& worker, Nanoseconds begin, Nanoseconds more) {
    if (&worker == working_) return;
    const Nanoseconds took = std::min(clock_() - begin + more, kLongest);
    worker.credit_ = std::max(worker.credit_ - took, -kWorstDebt);
    worker.deficit_ = std::max(worker.deficit_ - took, -kWorstDebt);
    excused_ += took;
    length_ = std::min(length_ + took, longest_);
}

Nanoseconds Line::lookAtUsed(Nanoseconds now) {
    lookedAt_ = now;
    return lastUsed_ = used_();
}

// What the present slice has used, at most.
Nanoseconds Line::usedUntil(Nanoseconds now) {
    const Nanoseconds passed = now - begin_;
    return passed < length_ ? passed : std::min(passed, lookAtUsed(now) - usedBefore_);
}

// Returns the time that it took.
Nanoseconds Line::slice(Worker& worker, Nanoseconds begin, Nanoseconds length) {
    begin_ = begin;
    usedBefore_ = begin - lookedAt_ < kUsedEvery ? lastUsed_ : lookAtUsed(begin);
    length_ = length;
    longest_ = 2 * length;
    steps_ = 0;
    isOver_ = false;
    excused_ = 0;
    working_ = &worker;
    worker.work();
    working_ = nullptr;
    const Nanoseconds took = usedUntil(clock_()) - excused_;
    worker.credit_ = std::max(worker.credit_ - took, -kWorstDebt);
    return took;
}

// Everybody in the line has overdrawn: the least indebted may go on at once.
void Line::payBack() {
    Nanoseconds best = std::numeric_limits<Nanoseconds>::min();
    for (const Worker* worker : waiting_) best = std::max(best, worker->deficit_);
    for (Worker* worker : waiting_) worker->deficit_ += share() - best;
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
        worker.deficit_ = std::min(worker.deficit_ + share(), share());
        if (worker.deficit_ <= 0) {
            join(worker);
            ++passed;
            continue;
        }
        passed = 0;
        addCredit(worker, now);
        worker.deficit_ -= slice(worker, now, worker.deficit_);
    }
}

}  // namespace kvx::rvd
