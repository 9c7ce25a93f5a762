#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "examples/modeld/service/Answer.h"
#include "mom/mom.h"

namespace modeld {

/// The questions that a standby has received, in case it takes over: the newest 1,000, none older
/// than six seconds. One thread at a time.
class HeldQuestions {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMost = 1000;
    /// Longer than a take-over (4.8 s), shorter than a querier's usual time-out (8 s).
    static constexpr std::chrono::milliseconds kOldest{6000};

    /// Keeps `question`, received at `now`. Above the limit the oldest one is dropped.
    void hold(Question question, Clock::time_point now);

    /// Drops the question whose answer goes to `replySubject`, if there is one.
    void forget(const std::string& replySubject);

    /// Removes and returns the questions that are not too old at `now`, in order, and drops the
    /// rest.
    std::vector<Question> take(Clock::time_point now);

    std::size_t size() const { return held_.size(); }

  private:
    struct Held {
        Question question;
        Clock::time_point heard;
    };

    void dropOld(Clock::time_point now);

    std::deque<Held> held_;
};

/// The subject on which the members of a group announce long answers, made from their query
/// subject.
std::string begunSubject(const std::string& querySubject);

/// Whether an answer of `rows` rows takes more than one packet.
bool isLongAnswer(EVekTransHdr version, std::uint64_t rows);

/// Queues the notice that the answer to `question` begins, ahead of its packets. Does nothing for a
/// question with an empty `begunSubject`. Any thread.
void tellBegun(CVekEngine& engine, const Question& question);

/// The reply subject in a notice; empty for any other message.
std::string readBegun(const RvDatum& data);

}  // namespace modeld
