#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace kvx::rvd {

/// Nanoseconds, as of a monotonic clock.
using Nanoseconds = std::int64_t;

/// Somebody who causes work: a connection, or who clears up after those that have left.
class Worker {
  public:
    virtual ~Worker() = default;
    /// Works until `Line::isOver` or until there is nothing left to do. A worker that is not done
    /// joins the line again.
    virtual void work() = 0;

  private:
    friend class Line;
    Nanoseconds credit_ = 0;    // what it may use without waiting in the line
    Nanoseconds creditAt_ = 0;  // when that was worked out
    Nanoseconds deficit_ = 0;   // what it has used too much in the line, below 0
    // Its neighbours in the line, a ring; null: it does not wait.
    Worker* before_ = nullptr;
    Worker* behind_ = nullptr;
};

/// Shares the time of the loop among those who cause work, so that nobody waits for somebody else.
///
/// Who has used little time of late works at once, as its bytes come, for one slice. All others
/// wait in the line, where each gets a slice in turn; what a slice took too much, since the last
/// step was a long one, is paid back from the following ones. Between two runs of the line the loop
/// serves everybody who is not in it.
///
/// Loop thread only. Workers must leave the line before they are destroyed.
class Line {
  public:
    /// Slices of those who want to work at the same time add up to `kRound`, within these bounds.
    /// The longest is less than what one read brings: who sends without a pause is read once a turn
    /// of the loop, and would else get less than who always has something left to do.
    static constexpr Nanoseconds kRound = 2'000'000;
    static constexpr Nanoseconds kShortest = 20'000;
    static constexpr Nanoseconds kLongest = 250'000;
    /// The slice of who is alone.
    static constexpr Nanoseconds kAlone = 1'000'000;
    /// Who uses less than one part in so many of all time need not wait in the line, also when it
    /// comes in bursts: it may have `kBurst` to its credit, and needs `kEnough`.
    static constexpr Nanoseconds kSpareParts = 20;
    static constexpr Nanoseconds kBurst = 2'000'000;
    static constexpr Nanoseconds kEnough = kBurst / 2;
    /// A step that has used more than that is forgiven the rest.
    static constexpr Nanoseconds kWorstDebt = 100'000'000;
    /// The line is left for the loop after so long.
    static constexpr Nanoseconds kRun = 500'000;

    /// Between two looks at the time used, while nothing seems to take too long.
    static constexpr Nanoseconds kUsedEvery = 1'000'000;

    /// Steps between two looks at the clock.
    static constexpr std::size_t kStepsPerLook = 64;

    using Clock = Nanoseconds (*)();

    /// `used`: the time that the processor has worked for this thread. It may be slow to read: a
    /// slice is charged as of `clock`, unless that is more than it may use; then what the processor
    /// did for others meanwhile is taken off, but for `kUsedEvery`.
    Line(Clock clock, Clock used) : clock_(clock), used_(used) {}
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    /// Has `worker` work at once, unless it waits in the line or, beside others, has used too much:
    /// then it joins.
    void come(Worker& worker);

    /// Waits for the next slice, behind all others. Once is enough.
    void join(Worker& worker);
    void leave(Worker& worker);

    /// Whether the slice of who is working is used up. `steps` says how much was done since the
    /// last call: the clock is read once in a while.
    [[nodiscard]] bool isOver(std::size_t steps);

    /// What was done since `begin`, as of `time`, and `more` was caused by `worker`: within the
    /// slice of another it is charged to `worker`, and lengthens that slice, to twice at most.
    void blame(Worker& worker, Nanoseconds begin, Nanoseconds more);
    [[nodiscard]] Nanoseconds time() const { return clock_(); }

    /// Gives slices in turn until the line is empty or `kRun` has passed.
    void run();

    /// A slice as long as those of `run` together, for somebody who does not wait in the line.
    void serve(Worker& worker) { slice(worker, clock_(), kRun); }

    /// The loop begins another turn, in which everybody may come once.
    void nextTurn();
    /// The number of the present turn.
    [[nodiscard]] std::uint64_t turn() const { return turn_; }

    /// Whether so many work that each should do little at a time.
    [[nodiscard]] bool isCrowded() const { return waiting_ + std::max(cameNow_, cameLast_) > kFew; }
    /// So many bytes were written by one system call. Past `kWrittenAtOnce` in one turn of the loop
    /// who has something to write does so in its own turn: else a message to very many would hold
    /// up everybody until it is written to all.
    void wrote(std::size_t bytes) { wrote_ += kWriteCost + bytes; }
    [[nodiscard]] bool hasWrittenMuch() const { return wrote_ >= kWrittenAtOnce; }

    [[nodiscard]] static bool isWaiting(const Worker& worker) { return worker.behind_ != nullptr; }
    [[nodiscard]] bool empty() const { return waiting_ == 0; }

  private:
    static constexpr std::size_t kFew = 4;
    static constexpr std::size_t kWriteCost = 16 * 1024;  // of a system call, in bytes
    static constexpr std::size_t kWrittenAtOnce = 8 * 1024 * 1024;

    Nanoseconds slice(Worker& worker, Nanoseconds begin, Nanoseconds length);
    [[nodiscard]] Nanoseconds usedUntil(Nanoseconds now);
    Nanoseconds lookAtUsed(Nanoseconds now);
    static void addCredit(Worker& worker, Nanoseconds now);
    [[nodiscard]] Nanoseconds share() const;
    void payBack();

    const Clock clock_;
    const Clock used_;
    Worker* first_ = nullptr;  // in the line
    std::size_t waiting_ = 0;  // workers
    std::uint64_t turn_ = 1;
    std::size_t cameNow_ = 0;  // workers that came in the present turn
    std::size_t cameLast_ = 0;
    std::size_t wrote_ = 0;     // in the present turn
    Nanoseconds lastUsed_ = 0;  // as of the last look at it, and when that was
    Nanoseconds lookedAt_ = -kUsedEvery;

    // Of the present slice.
    Worker* working_ = nullptr;
    Nanoseconds begin_ = 0;
    Nanoseconds usedBefore_ = 0;  // as of a look at most `kUsedEvery` before it
    Nanoseconds excused_ = 0;     // which others have caused
    Nanoseconds length_ = 0;
    Nanoseconds longest_ = 0;  // whatever others have caused
    std::size_t steps_ = 0;
    bool isOver_ = false;
};

}  // namespace kvx::rvd
