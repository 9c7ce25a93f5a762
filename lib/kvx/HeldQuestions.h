// An answer that is one packet arrives whole or not at all; one of several can be cut short by the
// death of its sender. Had the next member answered such a question too, the querier, who counts
// packets and knows no senders, would take the beginning of one answer and a part of the other for
// the whole. So whoever begins a long answer says so first, and the standbys forget the question:
// the querier then times out and asks again.

#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "mom/mom.h"

namespace kvx {

/// The questions that a standby has heard, in case it must answer them: the newest 1,000, none
/// older than six seconds, oldest first. One thread at a time.
template <class Question>
class HeldQuestions {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kMost = 1000;
    /// Longer than a take-over lasts (4.8 s), shorter than queriers usually wait (8 s).
    static constexpr std::chrono::milliseconds kOldest{6000};

    /// Keeps `question`, heard at `now`. Past the limit the oldest one goes.
    void hold(Question question, Clock::time_point now) {
        dropOld(now);
        if (held_.size() == kMost) held_.pop_front();
        held_.push_back({std::move(question), now});
    }

    /// Forgets the question whose answer goes to `replySubject`, if there is one.
    void forget(const std::string& replySubject) {
        const auto found = std::find_if(held_.begin(), held_.end(), [&](const Held& held) {
            return held.question.replySubject == replySubject;
        });
        if (found != held_.end()) held_.erase(found);
    }

    /// Gives up all that is still young at `now`, in the order of asking, and forgets the rest.
    std::vector<Question> take(Clock::time_point now) {
        dropOld(now);
        std::vector<Question> young;
        young.reserve(held_.size());
        for (Held& held : held_) young.push_back(std::move(held.question));
        held_.clear();
        return young;
    }

    [[nodiscard]] std::size_t size() const { return held_.size(); }

  private:
    struct Held {
        Question question;
        Clock::time_point heard;
    };

    void dropOld(Clock::time_point now) {
        while (!held_.empty() && now - held_.front().heard > kOldest) held_.pop_front();
    }

    std::deque<Held> held_;
};

/// The subject on which the members of a group tell one another which long answers have begun,
/// made from the subject on which they hear their questions.
inline std::string begunSubject(const std::string& querySubject) {
    return "KVX.BEGUN." + querySubject;
}

/// Whether an answer of `rows` rows takes more than one packet.
inline bool isLongAnswer(EVekTransHdr version, std::uint64_t rows) {
    return rows > (version == VEK_TRANS_V1 ? VEK_TRANS_V1_RECORDS : 1);
}

namespace detail {
inline constexpr const char* kInboxField = "inbox";
}  // namespace detail

/// Queues the notice that the answer to the question of `replySubject` begins, so that it leaves
/// ahead of the packets that are queued after it. Any thread.
inline void tellBegun(CVekEngine& engine, const std::string& begunSubject,
                      const std::string& replySubject) {
    auto notice = std::make_unique<RvMsg>(0UL);
    notice->append(detail::kInboxField, replySubject.c_str());
    engine.REAddToSendQueue(begunSubject.c_str(), notice.release(), nullptr, FALSE);
}

/// The reply subject that a notice names; empty for what is no notice.
inline std::string readBegun(const RvDatum& data) {
    if (data.type() != RVMSG_MSG) return {};
    const RvMsg notice(static_cast<const RvMsg&>(data));
    RvDatum inbox;
    if (!(notice.get(detail::kInboxField, inbox) == RvStatus(0))) return {};
    std::vector<char> text(inbox.size() + 1);
    return inbox.getString(text.data(), text.size()) == RvStatus(0) ? text.data() : "";
}

}  // namespace kvx
