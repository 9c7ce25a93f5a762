// kvx send: one message, or the same one many times, and then the wait until it has left.

#include <fmt/format.h>

#include <string>

#include "tools/bus/Complain.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Outgoing.h"
#include "tools/kvx/Window.h"

namespace kvx::tool {

namespace {

// Waits until everything has left, as long as something does.
bool flush(Outgoing& message) {
    rv_Session const session = message.client().session().handle();
    unsigned long before = 0;
    unsigned long now = 0;
    int code = 0;
    rv_Pending(session, nullptr, &now);
    do {
        before = now;
        code = rv_Flush(session, kStallMs);
        rv_Pending(session, nullptr, &now);
    } while (code != 0 && now != 0 && now < before);
    if (code != 0) {
        // The code of a time-out is the socket's, and no session's text.
        const std::string text = rv_ErrorText(code);
        bus::complain(
            "the message did not leave: " +
            (text.empty() ? fmt::format("nothing has moved for {} s", kStallMs / 1000) : text));
    }
    return code == 0;
}

}  // namespace

int send(const SendOptions& options) {
    Outgoing message(options);
    if (message.status() != kSuccess) return message.status();
    const std::uint64_t window = Window(message.payloadBytes()).messages();
    for (std::uint64_t i = 1; i <= options.repeat; ++i) {
        const RvStatus status = message.sender().send(message.payload());
        if (!(status == RvStatus(0))) return message.refuse(status);
        if ((i == options.repeat || i % window == 0) && !flush(message)) return kFailure;
    }
    return kSuccess;
}

}  // namespace kvx::tool
