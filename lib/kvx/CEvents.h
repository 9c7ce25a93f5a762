#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "kvx/CInterface.h"
#include "kvx/Message.h"
#include "kvx/Record.h"

namespace kvx::detail {

/// What a subscription has heard: a message, or a change.
struct HeardEvent {
    int id = 0;
    std::string subject;
    std::string replySubject;
    Message message;
    std::optional<Record> change;
    std::size_t bytes = 0;  ///< that it is charged for
};

/// The events that wait to be taken. Beyond either bound the oldest goes. Any thread.
class EventQueue {
  public:
    explicit EventQueue(std::size_t mostEvents) : mostEvents_(mostEvents) {}

    void push(HeardEvent event) {
        const std::lock_guard guard(mutex_);
        bytes_ += event.bytes;
        events_.push_back(std::move(event));
        while (events_.size() > mostEvents_ || bytes_ > kMostBytes) {
            bytes_ -= events_.front().bytes;
            events_.pop_front();
            ++dropped_;
        }
        some_.notify_one();
    }

    /// Takes the oldest; nothing at `until`, or when the queue has ended and is empty.
    std::optional<HeardEvent> take(std::optional<std::chrono::steady_clock::time_point> until) {
        std::unique_lock lock(mutex_);
        const auto isDue = [this] { return !events_.empty() || hasEnded_; };
        if (until) {
            some_.wait_until(lock, *until, isDue);
        } else {
            some_.wait(lock, isDue);
        }
        if (events_.empty()) return std::nullopt;
        HeardEvent event = std::move(events_.front());
        events_.pop_front();
        bytes_ -= event.bytes;
        return event;
    }

    void forget(int id) {
        const std::lock_guard guard(mutex_);
        std::erase_if(events_, [&](const HeardEvent& event) {
            if (event.id != id) return false;
            bytes_ -= event.bytes;
            return true;
        });
    }

    void end() {
        const std::lock_guard guard(mutex_);
        hasEnded_ = true;
        some_.notify_all();
    }

    void countDropped() {
        const std::lock_guard guard(mutex_);
        ++dropped_;
    }

    [[nodiscard]] bool hasEnded() const {
        const std::lock_guard guard(mutex_);
        return hasEnded_;
    }
    [[nodiscard]] std::uint64_t dropped() const {
        const std::lock_guard guard(mutex_);
        return dropped_;
    }

  private:
    static constexpr std::size_t kMostBytes = std::size_t{64} << 20U;

    const std::size_t mostEvents_;
    mutable std::mutex mutex_;
    std::condition_variable some_;
    // Guarded by mutex_.
    std::deque<HeardEvent> events_;
    std::size_t bytes_ = 0;
    std::uint64_t dropped_ = 0;
    bool hasEnded_ = false;
};

}  // namespace kvx::detail
