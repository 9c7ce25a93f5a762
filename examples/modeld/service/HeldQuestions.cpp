// The newest stand at the end; age and number are both cut at the front.

#include "examples/modeld/service/HeldQuestions.h"

#include <algorithm>
#include <utility>

namespace modeld {

void HeldQuestions::hold(Question question, Clock::time_point now) {
    dropOld(now);
    if (held_.size() == kMost) held_.pop_front();
    held_.push_back({std::move(question), now});
}

void HeldQuestions::forget(const std::string& replySubject) {
    const auto found = std::find_if(held_.begin(), held_.end(), [&](const Held& held) {
        return held.question.replySubject == replySubject;
    });
    if (found != held_.end()) held_.erase(found);
}

std::vector<Question> HeldQuestions::take(Clock::time_point now) {
    dropOld(now);
    std::vector<Question> young;
    young.reserve(held_.size());
    for (Held& held : held_) young.push_back(std::move(held.question));
    held_.clear();
    return young;
}

void HeldQuestions::dropOld(Clock::time_point now) {
    while (!held_.empty() && now - held_.front().heard > kOldest) held_.pop_front();
}

}  // namespace modeld
