#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include "examples/modeld/service/Answer.h"
#include "mom/mom.h"

namespace modeld {

/// The questions that a standby has heard, in case it must answer them: the newest 1,000, none
/// older than six seconds. One thread at a time.
class HeldQuestions {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMost = 1000;
    /// Longer than a take-over lasts (4.8 s), shorter than queriers usually wait (8 s).
    static constexpr std::chrono::milliseconds kOldest{6000};

    /// Keeps `question`, heard at `now`. Past the limit the oldest one goes.
    void hold(Question question, Clock::time_point now);

    /// Forgets the question whose answer goes to `replySubject`, if there is one.
    void forget(const std::string& replySubject);

    /// Gives up all that is still young at `now`, in the order of asking, and forgets the rest.
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

/// The subject on which the members of a group tell one another which long answers have begun,
/// made from the subject on which they hear their questions.
std::string begunSubject(const std::string& querySubject);

/// Whether an answer of `rows` rows takes more than one packet.
bool isLongAnswer(EVekTransHdr version, std::uint64_t rows);

/// Queues the notice that the answer to `question` begins, so that it leaves ahead of the packets
/// that are queued after it. Does nothing for a question whose `begunSubject` is empty. Any thread.
void tellBegun(CVekEngine& engine, const Question& question);

/// The reply subject that a notice names; empty for what is no notice.
std::string readBegun(const RvDatum& data);

}  // namespace modeld
