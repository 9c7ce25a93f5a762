#include "tools/beats/BeatListener.h"

#include <string>

namespace kvx::beats {

bool BeatListener::listen(CVekRvNet& net) {
    const std::string subject = kvx::kHeartbeatSubject;
    return net.RRNAddExService(subject.c_str(), this) == kOk &&
           net.RRNAddExService((subject + ".>").c_str(), this) == kOk;
}

void BeatListener::onData(const char*, RvSender*, const RvDatum& data, RvListener*) {
    RvDatum field;
    const bool isPacket = data.type() == RVMSG_MSG &&
                          static_cast<const RvMsg&>(data).get("a", field) == RvStatus(0) &&
                          field.type() == RVMSG_OPAQUE;
    if (!isPacket) return hear_({});
    hear_({static_cast<const unsigned char*>(field.data()), field.size()});
}

}  // namespace kvx::beats
