// An answer that is one packet arrives whole or not at all; one of several can be cut short by the
// death of its sender. Had the next member answered such a question too, the querier, who counts
// packets and knows no senders, would take the beginning of one answer and a part of the other for
// the whole. So whoever begins a long answer says so first, and the standbys forget the question:
// the querier then times out and asks again.

#include "examples/modeld/service/BegunNotice.h"

#include <memory>
#include <vector>

namespace modeld {

namespace {

constexpr const char* kInboxField = "inbox";
constexpr std::uint64_t kRowsInPacket = 100;  // of version 1

}  // namespace

std::string begunSubject(const std::string& querySubject) {
    return "MODELD.BEGUN." + querySubject;
}

bool isLongAnswer(EVekTransHdr version, std::uint64_t rows) {
    return rows > (version == VEK_TRANS_V1 ? kRowsInPacket : 1);
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
