#include "tools/kvx/Outgoing.h"

#include <fmt/format.h>

#include "tools/bus/Complain.h"
#include "tools/kvx/Fields.h"

namespace kvx::tool {

Outgoing::Outgoing(const MessageOptions& options) : status_(prepare(options)) {}

int Outgoing::prepare(const MessageOptions& options) {
    PayloadProblem problem;
    payload_ = buildPayload(options.payload, problem);
    if (!payload_) {
        bus::complain(problem.text);
        return problem.status;
    }
    if (!options.reply.empty() && !isSubject(options.reply)) {
        bus::complain(fmt::format("the reply subject '{}' is no subject", options.reply));
        return kFailure;
    }
    client_.emplace(options.connection);
    if (!client_->isUp()) return kFailure;
    subject_ = client_->qualified(options.subject);
    sender_.reset(client_->session().newSender(
        subject_.c_str(), options.reply.empty() ? nullptr : options.reply.c_str()));
    return sender_ ? kSuccess : refuse(client_->session().status());
}

std::uint64_t Outgoing::payloadBytes() const {
    const bool isMessage = payload_->type() == RVMSG_MSG;
    return isMessage ? static_cast<const RvMsg&>(*payload_).size() : payload_->size();
}

int Outgoing::refuse(const RvStatus& reason) const {
    bus::complain(fmt::format("cannot send on '{}': {}", subject_, reason.text()));
    return kFailure;
}

}  // namespace kvx::tool
