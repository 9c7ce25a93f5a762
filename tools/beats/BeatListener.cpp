#include "tools/beats/BeatListener.h"

#include <string>
#include <string_view>

namespace kvx::beats {

namespace {

constexpr const char* kGroups = "_RVFT.>";

bool isOfGroup(std::string_view subject) {
    return subject.starts_with("_RVFT.");
}

}  // namespace

bool BeatListener::listen(CVekRvNet& net) {
    const std::string subject = kvx::kHeartbeatSubject;
    return net.RRNAddExService(subject.c_str(), this) == kOk &&
           net.RRNAddExService((subject + ".>").c_str(), this) == kOk &&
           net.RRNAddExService(kGroups, this) == kOk;
}

void BeatListener::onData(const char* subject, RvSender*, const RvDatum& data, RvListener*) {
    const bool isMessage = data.type() == RVMSG_MSG;
    if (isOfGroup(subject)) {
        const auto beat =
            isMessage ? readMemberBeat(static_cast<const RvMsg&>(data)) : std::nullopt;
        if (beat) hearMember_(*beat);
        return;
    }
    RvDatum field;
    const bool isPacket = isMessage &&
                          static_cast<const RvMsg&>(data).get("a", field) == RvStatus(0) &&
                          field.type() == RVMSG_OPAQUE;
    if (!isPacket) return hear_({});
    hear_({static_cast<const unsigned char*>(field.data()), field.size()});
}

}  // namespace kvx::beats
