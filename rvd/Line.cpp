// In the line, deficit round robin over time. Beside it credit that grows with time and is spent by
// all work: who has some is not delayed by those who work without a pause.

#include "rvd/Line.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace kvx::rvd {

Nanoseconds Line::share() const {
    const auto wanting = waiting_ + std::max(cameNow_, cameLast_) + 1;
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
    if (isWaiting(worker)) return;
    ++cameNow_;
    const Nanoseconds now = clock_();
    addCredit(worker, now);
    const bool isAlone = empty() && std::max(cameNow_, cameLast_) <= 1;
    if (isAlone) {
        slice(worker, now, kAlone);
    } else if (worker.credit_ >= kEnough) {
        slice(worker, now, std::min(worker.credit_, share()));
    } else {
        join(worker);
    }
}

void Line::join(Worker& worker) {
    if (isWaiting(worker)) return;
    if (empty()) first_ = worker.before_ = &worker;
    worker.before_ = first_->before_;
    worker.behind_ = first_;
    worker.before_->behind_ = first_->before_ = &worker;
    ++waiting_;
}

void Line::leave(Worker& worker) {
    if (!isWaiting(worker)) return;
    worker.before_->behind_ = worker.behind_;
    worker.behind_->before_ = worker.before_;
    if (first_ == &worker) first_ = worker.behind_;
    worker.before_ = worker.behind_ = nullptr;
    --waiting_;
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
    const auto each = [this](auto visit) {
        for (std::size_t i = 0; i < waiting_; ++i, first_ = first_->behind_) visit(*first_);
    };
    each([&](const Worker& worker) { best = std::max(best, worker.deficit_); });
    each([&](Worker& worker) { worker.deficit_ += share() - best; });
}

void Line::run() {
    const Nanoseconds begin = clock_();
    std::size_t passed = 0;  // workers that may not go on, one after another
    for (Nanoseconds now = begin; !empty() && now < begin + kRun; now = clock_()) {
        Worker& worker = *first_;
        if (passed == waiting_) {
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
