#pragma once

#include <atomic>
#include <memory>

namespace kvx::rva {

/// So many of a kind at once. Any thread.
class Quota {
  public:
    explicit Quota(int most) : left_(std::make_shared<std::atomic<int>>(most)) {}

    /// One of them, given back when all copies of it are gone; null when there is none.
    [[nodiscard]] std::shared_ptr<const void> take() const {
        if (left_->fetch_sub(1) <= 0) {
            ++*left_;
            return nullptr;
        }
        return {static_cast<const void*>(left_.get()), [left = left_](const void*) { ++*left; }};
    }

  private:
    std::shared_ptr<std::atomic<int>> left_;
};

}  // namespace kvx::rva
