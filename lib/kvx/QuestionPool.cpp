#include "kvx/QuestionPool.h"

#include <system_error>
#include <utility>

namespace kvx::detail {

QuestionPool::~QuestionPool() {
    {
        const std::lock_guard lock(mutex_);
        isEnding_ = true;
        questions_.clear();
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

bool QuestionPool::add(const Asked& asked) {
    const std::lock_guard lock(mutex_);
    const bool isFull =
        questions_.size() >= kMostWaiting || bytes_ + asked.text.size() > kMostBytes;
    if (isEnding_ || isFull) return false;
    const bool needsThread = questions_.size() >= idle_ && threads_.size() < kMostThreads;
    if (needsThread && !startThread() && threads_.empty()) return false;
    questions_.push_back(asked);
    bytes_ += asked.text.size();
    changed_.notify_one();
    return true;
}

bool QuestionPool::startThread() {
    try {
        threads_.emplace_back([this] { work(); });
        hasStarted_ = true;
    } catch (const std::system_error&) {
        hasStarted_ = false;
    }
    return hasStarted_;
}

std::size_t QuestionPool::waiting() const {
    const std::lock_guard lock(mutex_);
    return questions_.size();
}

bool QuestionPool::isCrowded() const {
    const std::lock_guard lock(mutex_);
    const bool isFull = threads_.size() == kMostThreads || !hasStarted_;
    return isFull && questions_.size() > idle_;
}

void QuestionPool::countDropped() {
    const std::lock_guard lock(mutex_);
    ++dropped_;
}

std::uint64_t QuestionPool::dropped() const {
    const std::lock_guard lock(mutex_);
    return dropped_;
}

void QuestionPool::work() {
    std::unique_lock lock(mutex_);
    while (true) {
        ++idle_;
        changed_.wait(lock, [this] { return isEnding_ || !questions_.empty(); });
        --idle_;
        if (isEnding_) return;
        const Asked asked = std::move(questions_.front());
        questions_.pop_front();
        bytes_ -= asked.text.size();
        lock.unlock();
        Turns::Turn turn(turns_);
        turn.begin();
        isTooOld(asked) ? countDropped() : answer_(asked, turn);
        turn.end();
        lock.lock();
    }
}

}  // namespace kvx::detail
