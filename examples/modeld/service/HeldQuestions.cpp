// The questions held by a standby, oldest first; both limits drop from the front.
//
// An answer of one packet arrives whole or not at all; one of several can be cut short by the end
// of its sender. If the next member answered such a question too, the querier, which counts packets
// and does not know their senders, could take parts of both answers for one. So a member announces
// a long answer before it begins, and the standbys drop the question: the querier then times out
// and asks again.

#include "examples/modeld/service/HeldQuestions.h"

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace modeld {

namespace {

constexpr const char* kInboxField = "inbox";

}  // namespace

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

std::string begunSubject(const std::string& querySubject) {
    return "MODELD.BEGUN." + querySubject;
}

bool isLongAnswer(EVekTransHdr version, std::uint64_t rows) {
    return rows > (version == VEK_TRANS_V1 ? VEK_TRANS_V1_RECORDS : 1);
}

void tellBegun(CVekEngine& engine, const Question& question) {
    if (question.begunSubject.empty()) return;
    auto notice = std::make_unique<RvMsg>(0UL);
    notice->append(kInboxField, question.replySubject.c_str());
    engine.REAddToSendQueue(question.begunSubject.c_str(), notice.release(), nullptr, FALSE);
}

std::string readBegun(const RvDatum& data) {
    if (data.type() != RVMSG_MSG) return {};
    const RvMsg notice(static_cast<const RvMsg&>(data));
    RvDatum inbox;
    if (!(notice.get(kInboxField, inbox) == RvStatus(0))) return {};
    std::vector<char> text(inbox.size() + 1);
    return inbox.getString(text.data(), text.size()) == RvStatus(0) ? text.data() : "";
}

}  // namespace modeld
