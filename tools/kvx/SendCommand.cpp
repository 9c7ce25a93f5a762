// kvx send: one message, or the same one many times, and then the wait until it has left.

#include <string>

#include "tools/bus/Complain.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Outgoing.h"

namespace kvx::tool {

namespace {

constexpr unsigned long kFlushMs = 10000;
// How many sends go between two looks at what waits, so that no limit of the link is reached.
constexpr std::uint64_t kSendsPerFlush = 500;

bool flush(Outgoing& message) {
    const int code = rv_Flush(message.client().session().handle(), kFlushMs);
    if (code != 0) bus::complain(std::string("the message did not leave: ") + rv_ErrorText(code));
    return code == 0;
}

}  // namespace

int send(const SendOptions& options) {
    Outgoing message(options);
    if (message.status() != kSuccess) return message.status();
    for (std::uint64_t i = 1; i <= options.repeat; ++i) {
        const RvStatus status = message.sender().send(message.payload());
        if (!(status == RvStatus(0))) return message.refuse(status);
        if ((i == options.repeat || i % kSendsPerFlush == 0) && !flush(message)) return kFailure;
    }
    return kSuccess;
}

}  // namespace kvx::tool
