#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kvx/Stamp.h"
#include "kvx/Turns.h"
#include "mom/mom.h"

namespace kvx::detail {

/// A question on its way to the function that answers it.
struct Asked {
    using Clock = std::chrono::steady_clock;

    std::string text;
    std::string replySubject;
    EVekTransHdr version = VEK_TRANS_V0;
    std::optional<std::uint32_t> window{};  ///< packets that may be sent unasked; none: all
    std::optional<Stamp> since{};           ///< the changes after it are asked for, and no text
    Clock::time_point heard = Clock::now();
};

/// Threads that answer questions, in the order of asking. Every question has a thread while it is
/// answered, but only `atOnce` of these work at a time: an answer that waits for its querier holds
/// nobody up, and a short one passes the long ones. Threads are started when they are needed.
class QuestionPool {
  public:
    using Answer = std::function<void(const Asked&, Turns::Turn&)>;

    /// Answers that may be open at once.
    static constexpr std::size_t kMostThreads = 192;
    /// Questions that may wait for a thread, and the bytes of their texts.
    static constexpr std::size_t kMostWaiting = 1000;
    static constexpr std::size_t kMostBytes = std::size_t{64} << 20U;

    /// A question that is older than `oldest` when its turn comes is dropped: its querier waits no
    /// longer, or has asked again.
    QuestionPool(int atOnce, std::chrono::milliseconds oldest, Answer answer)
        : turns_(atOnce), oldest_(oldest), answer_(std::move(answer)) {}
    /// Drops what waits, and waits for the functions that are answering.
    ~QuestionPool();
    QuestionPool(const QuestionPool&) = delete;
    QuestionPool& operator=(const QuestionPool&) = delete;

    /// False when too many wait, or no thread can be started. Any thread.
    [[nodiscard]] bool add(const Asked& asked);

    /// Questions that have not begun to be answered. Any thread.
    [[nodiscard]] std::size_t waiting() const;

    /// Whether some of these wait for an answer to end: no further thread can be had. Any thread.
    [[nodiscard]] bool isCrowded() const;

    /// Whether an answer to `asked` would come too late. Any thread.
    [[nodiscard]] bool isTooOld(const Asked& asked) const {
        return Asked::Clock::now() - asked.heard > oldest_;
    }

    /// Counts a question that was too old. Any thread.
    void countDropped();
    /// Any thread.
    [[nodiscard]] std::uint64_t dropped() const;

  private:
    void work();
    bool startThread();

    Turns turns_;
    const std::chrono::milliseconds oldest_;
    const Answer answer_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    // Guarded by mutex_.
    std::deque<Asked> questions_;
    std::size_t bytes_ = 0;  // of their texts
    std::vector<std::thread> threads_;
    std::size_t idle_ = 0;    // threads that wait for a question
    bool hasStarted_ = true;  // the last thread that was needed
    std::uint64_t dropped_ = 0;
    bool isEnding_ = false;
};

}  // namespace kvx::detail
