// kvx send: one message, or the same one many times, and then the wait until it has left.

#include <fmt/format.h>

#include <memory>

#include "tools/kvx/Client.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Fields.h"

namespace kvx::tool {

namespace {

constexpr unsigned long kFlushMs = 10000;
// How many sends go between two looks at what waits, so that no limit of the link is reached.
constexpr std::uint64_t kSendsPerFlush = 500;

bool flush(Client& client) {
    const int code = rv_Flush(client.session().handle(), kFlushMs);
    if (code != 0) complain(std::string("the message did not leave: ") + rv_ErrorText(code));
    return code == 0;
}

bool sendAll(Client& client, RvSender& sender, const RvDatum& datum, std::uint64_t times) {
    for (std::uint64_t i = 1; i <= times; ++i) {
        const RvStatus status = sender.send(datum);
        if (!(status == RvStatus(0))) {
            complain(fmt::format("cannot send on '{}': {}", sender.subject(), status.text()));
            return false;
        }
        if ((i == times || i % kSendsPerFlush == 0) && !flush(client)) return false;
    }
    return true;
}

}  // namespace

int send(const SendOptions& options) {
    std::string problem;
    const auto datum = buildPayload(options.payload, problem);
    if (!datum) {
        complain(problem);
        return kUsage;
    }
    Client client(options.connection);
    if (!client.isUp()) return kFailure;
    const std::string subject = client.qualified(options.subject);
    const std::unique_ptr<RvSender> sender(client.session().newSender(
        subject.c_str(), options.reply.empty() ? nullptr : options.reply.c_str()));
    if (!sender) {
        complain("cannot send on '" + subject + "'");
        return kFailure;
    }
    return sendAll(client, *sender, *datum, options.repeat) ? kSuccess : kFailure;
}

}  // namespace kvx::tool
