// An answer that is one packet arrives whole or not at all; one of several can be cut short by the
// death of its sender. Had the next member answered such a question too, a querier who counts
// packets and knows no senders would take the beginning of one answer and a part of the other for
// the whole. So whoever begins a long answer says so first, and the standbys forget the question:
// the querier then times out and asks again.

#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <utility>
#include <vector>

namespace kvx {

/// The questions that a standby has heard, in case it must answer them: the newest 1,000 and 64 MiB
/// of text, none older than six seconds, oldest first. One thread at a time.
template <class Question>
class HeldQuestions {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMost = 1000;
    static constexpr std::size_t kMostBytes = std::size_t{64} << 20U;
    /// Longer than a take-over lasts (4.8 s), shorter than queriers usually wait (8 s).
    static constexpr std::chrono::milliseconds kOldest{6000};

    /// Keeps `question`, heard at `now`. Past the limit the oldest one goes.
    void hold(Question question, Clock::time_point now) {
        dropOld(now);
        bytes_ += question.text.size();
        held_.push_back({std::move(question), now});
        while (held_.size() > kMost || bytes_ > kMostBytes) drop(held_.begin());
    }

    /// Forgets the question whose answer goes to `replySubject`, if there is one.
    void forget(const std::string& replySubject) {
        const auto found = std::find_if(held_.begin(), held_.end(), [&](const Held& held) {
            return held.question.replySubject == replySubject;
        });
        if (found != held_.end()) drop(found);
    }

    /// Gives up all that is still young at `now`, in the order of asking, and forgets the rest.
    std::vector<Question> take(Clock::time_point now) {
        dropOld(now);
        std::vector<Question> young;
        young.reserve(held_.size());
        for (Held& held : held_) young.push_back(std::move(held.question));
        held_.clear();
        bytes_ = 0;
        return young;
    }

    [[nodiscard]] std::size_t size() const { return held_.size(); }

  private:
    struct Held {
        Question question;
        Clock::time_point heard;
    };

    void dropOld(Clock::time_point now) {
        while (!held_.empty() && now - held_.front().heard > kOldest) drop(held_.begin());
    }

    void drop(typename std::deque<Held>::iterator which) {
        bytes_ -= which->question.text.size();
        held_.erase(which);
    }

    std::deque<Held> held_;
    std::size_t bytes_ = 0;  // of their texts
};

}  // namespace kvx
