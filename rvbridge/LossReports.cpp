#include "rvbridge/LossReports.h"

#include <array>

#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::bridge {

void LossReports::add(SubjectView subject, std::uint64_t messages, LossCause cause) {
    const std::string key(subject.encoded());
    if (untold_.size() >= kMaxSubjects && !untold_.contains(key)) return;
    untold_[key][static_cast<std::size_t>(cause)] += messages;
}

bool LossReports::isTold(SubjectView subject) {
    if (untold_.empty()) return true;
    tell();
    return untold_.empty() || !untold_.contains(std::string(subject.encoded()));
}

void LossReports::tell() {
    while (!untold_.empty()) {
        const auto next = untold_.begin();
        if (!tell(next->first, next->second)) return;
        untold_.erase(next);
    }
}

// What is told of `losses` becomes 0. False when there is no room.
bool LossReports::tell(const std::string& subject, Losses& losses) {
    static const Subject kReport = *Subject::fromText("_RVD.LOST");
    for (std::size_t i = 0; i < kBridgeLossCauses; ++i) {
        if (losses[i] == 0) continue;
        const char* const cause = textOf(static_cast<LossCause>(i));
        std::array<std::uint8_t, kMaxSubjectBytes + 256> body{};
        const auto capacity = static_cast<rvmsg_Size>(body.size());
        const bool isBuilt =
            rvmsg_Init(body.data(), capacity) == 0 &&
            rvmsg_Append(body.data(), capacity, "sub", RVMSG_SUBJECT, 0, subject.data()) == 0 &&
            rvmsg_Append(body.data(), capacity, "lost", RVMSG_UINT, sizeof losses[i], &losses[i]) ==
                0 &&
            rvmsg_Append(body.data(), capacity, "cause", RVMSG_STRING, 0, cause) == 0;
        if (isBuilt && !daemon_.send(wire::buildData(kReport.view().bytes(), nullptr, 0,
                                                     {RVMSG_MSG, 0, body.data()}))) {
            return false;
        }
        losses[i] = 0;
    }
    return true;
}

}  // namespace kvx::bridge
