// Which of the answers that are being made goes on: one that has not made its first step yet comes
// first, in the order of asking, so a short answer waits for one step of the long ones, never for
// their end. Of the long ones the oldest few share, the one whose last step is longest ago first;
// the rest wait until one of these is done. So a long answer that has begun ends in time, however
// many are asked for: had all of them shared, none would have ended before its querier gave up. One
// that is nearly done does not wait for newer ones to get as far.

#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>

namespace kvx::detail {

/// Lets a bounded number of threads work at once. Any thread.
class Turns {
  public:
    /// Long pieces of work that share.
    static constexpr int kMostSharing = 16;

    /// What one thread works on. That thread only.
    class Turn {
      public:
        explicit Turn(Turns& turns) : turns_(turns) {
            const std::lock_guard lock(turns_.mutex_);
            order_ = ++turns_.order_;
        }
        ~Turn() { end(); }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        /// Waits until it may work.
        void begin() {
            std::unique_lock lock(turns_.mutex_);
            if (turns_.free_ > 0) {
                --turns_.free_;
                isMine_ = true;
            } else {
                wait(lock);
            }
        }

        /// After a step: lets another one work whose turn it is, and waits.
        void pass() {
            std::unique_lock lock(turns_.mutex_);
            lastStep_ = ++turns_.steps_;
            Turn* const next = turns_.next(this);
            if (next == this) return;
            isMine_ = false;
            turns_.give(*next);
            wait(lock);
        }

        /// Works no longer, or waits for something else.
        void end() {
            const std::lock_guard lock(turns_.mutex_);
            if (!isMine_) return;
            isMine_ = false;
            Turn* const next = turns_.next(nullptr);
            next != nullptr ? turns_.give(*next) : void(++turns_.free_);
        }

      private:
        friend class Turns;

        void wait(std::unique_lock<std::mutex>& lock) {
            turns_.waitingOf(*this).emplace(order_, this);
            given_.wait(lock, [this] { return isMine_; });
        }

        Turns& turns_;
        // Guarded by the mutex of `turns_`.
        std::condition_variable given_;
        std::uint64_t lastStep_ = 0;  // of all steps; 0 before its first one
        std::uint64_t order_ = 0;     // of asking
        bool isMine_ = false;
    };

    explicit Turns(int atOnce) : free_(atOnce) {}

  private:
    using ByOrder = std::map<std::uint64_t, Turn*>;

    ByOrder& waitingOf(const Turn& turn) { return turn.lastStep_ == 0 ? new_ : long_; }

    void give(Turn& turn) {
        waitingOf(turn).erase(turn.order_);
        turn.isMine_ = true;
        turn.given_.notify_one();
    }

    // Among those that wait and `current`, which has just made a step; both may be none.
    Turn* next(Turn* current) {
        if (!new_.empty()) return new_.begin()->second;
        Turn* best = current;
        int seen = 0;
        for (const auto& [order, turn] : long_) {
            if (++seen > kMostSharing) break;
            if (best == nullptr || turn->lastStep_ < best->lastStep_) best = turn;
        }
        return best;
    }

    std::mutex mutex_;
    // Guarded by mutex_.
    ByOrder new_;
    ByOrder long_;
    std::uint64_t order_ = 0;
    std::uint64_t steps_ = 0;
    int free_;
};

}  // namespace kvx::detail
