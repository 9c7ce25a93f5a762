// A member of a group, as the tests of whole processes start it. Says when it has joined, leads and
// does not, and when it has its daemon back: one line each, with the milliseconds of the steady
// clock.
//
//     GroupMember daemon heartbeatMs activateMs
//
// SIGTERM makes it close its session, which leaves the group.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "platform/Clock.h"
#include "rv/ft/rvft.h"
#include "rv/session/rvSessionEvents.h"
#include "rv/session/rvSessionHooks.h"

namespace {

// One write a line, so that a line is whole or not there when the process is killed.
void say(const char* what) {
    char line[64];
    const auto now = static_cast<long long>(kvx::platform::monotonicMs());
    const int length = std::snprintf(line, sizeof line, "%s %lld\n", what, now);
    if (write(STDOUT_FILENO, line, static_cast<std::size_t>(length)) != length) std::abort();
}

void check(int status) {
    if (status == 0) return;
    std::fprintf(stderr, "status %d\n", status);
    std::exit(1);
}

void onAction(rv_Session, const char*, int action, void*) {
    say(action == RVFT_ACTIVATE ? "active" : "inactive");
}

int onReconnect(rv_Session, const void*, void*) {
    say("connected");
    return 0;
}

void onTerminate(void* session, void*, int, void*) {
    rv_Close(static_cast<rv_Session>(session));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const auto milliseconds = [argv](int i) { return std::strtoul(argv[i], nullptr, 10); };
    rv_Session session = nullptr;
    rvevm_Id id = nullptr;
    rvft_MemberId member = nullptr;
    check(rv_Open(&session, "", "", argv[1]));
    check(rv_AddSignal(session, &id, SIGTERM, onTerminate, nullptr));
    check(rv_AddHook(session, RV_HOOK_RECONNECT, onReconnect, nullptr));
    check(rvft_Join(session, &member, "service.NET1.1", 50, 1, milliseconds(2), 0, milliseconds(3),
                    onAction, nullptr));
    say("joined");
    check(rv_RunOnce(session));
    return 0;
}
