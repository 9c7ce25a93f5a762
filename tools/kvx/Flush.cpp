#include "tools/kvx/Flush.h"

#include <fmt/format.h>

#include <string>

#include "tools/bus/Complain.h"
#include "tools/kvx/Window.h"

namespace kvx::tool {

bool flush(bus::Client& client) {
    rv_Session const session = client.session().handle();
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
        // The code of a time-out is a socket error number, without a session text.
        const std::string text = rv_ErrorText(code);
        bus::complain(
            "the message did not leave: " +
            (text.empty() ? fmt::format("nothing has moved for {} s", kStallMs / 1000) : text));
    }
    return code == 0;
}

}  // namespace kvx::tool
