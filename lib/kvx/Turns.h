#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <tuple>

namespace kvx::detail {

/// Lets a bounded number of threads work at once, and of those that wait the one that has been
/// served least, then the one that has waited longest. So a small piece of work waits for one step
/// of the large ones, never for their end. Any thread.
class Turns {
  public:
    /// What one thread works on. That thread only.
    class Turn {
      public:
        explicit Turn(Turns& turns) : turns_(turns) {}
        ~Turn() { end(); }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        /// Waits until it may work.
        void begin() {
            std::unique_lock lock(turns_.mutex_);
            wait(lock);
        }

        /// After a step: lets another one work that has been served less, and waits.
        void pass() {
            std::unique_lock lock(turns_.mutex_);
            ++served_;
            if (turns_.waiting_.empty() || (*turns_.waiting_.begin())->served_ >= served_) return;
            turns_.give();
            isMine_ = false;
            wait(lock);
        }

        /// Works no longer, or waits for something else.
        void end() {
            const std::lock_guard lock(turns_.mutex_);
            if (!isMine_) return;
            isMine_ = false;
            turns_.give();
        }

      private:
        friend class Turns;

        void wait(std::unique_lock<std::mutex>& lock) {
            if (turns_.free_ > 0) {
                --turns_.free_;
                isMine_ = true;
                return;
            }
            order_ = ++turns_.order_;
            turns_.waiting_.insert(this);
            given_.wait(lock, [this] { return isMine_; });
        }

        Turns& turns_;
        // Guarded by the mutex of `turns_`.
        std::condition_variable given_;
        std::uint64_t served_ = 0;  // steps
        std::uint64_t order_ = 0;
        bool isMine_ = false;
    };

    explicit Turns(int atOnce) : free_(atOnce) {}

  private:
    struct Less {
        bool operator()(const Turn* one, const Turn* other) const {
            return std::tie(one->served_, one->order_) < std::tie(other->served_, other->order_);
        }
    };

    void give() {
        if (waiting_.empty()) {
            ++free_;
            return;
        }
        Turn* const next = *waiting_.begin();
        waiting_.erase(waiting_.begin());
        next->isMine_ = true;
        next->given_.notify_one();
    }

    std::mutex mutex_;
    // Guarded by mutex_. A turn that waits does not change its place.
    std::set<Turn*, Less> waiting_;
    std::uint64_t order_ = 0;
    int free_;
};

}  // namespace kvx::detail
