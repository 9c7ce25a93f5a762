// A member of a group, as the tests of whole processes start it: says what it is told, when it last
// heard a better-ranked one, and how late its thread and the bus have been. One line each, with the
// microseconds of the steady clock.
//
//     GroupMember daemon heartbeatMs activateMs
//
// SIGTERM makes it close its session, which leaves the group.

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "rv/ft/GroupMessage.h"
#include "rv/ft/rvft.h"
#include "rv/message/rvmsg.h"
#include "rv/session/rvSessionEvents.h"
#include "rv/session/rvSessionHooks.h"

namespace {

using Micros = long long;

constexpr const char* kGroup = "service.NET1.1";
constexpr unsigned long kProbeMs = 10;
constexpr Micros kLate = 3'000;  // what a machine at rest stays below

Micros now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// One write a line, so that a line is whole or not there when the process is killed.
void say(const char* what, Micros since, Micros until) {
    char line[100];
    const int length = std::snprintf(line, sizeof line, "%s %lld %lld\n", what, since, until);
    if (write(STDOUT_FILENO, line, static_cast<std::size_t>(length)) != length) std::abort();
}

class GroupMember {
  public:
    explicit GroupMember(char** arguments) {
        check(rv_Open(&session_, "", "", arguments[0]));
        const std::string own = "LATE." + std::to_string(getpid());
        rv_Listener listener = nullptr;
        check(rv_Listen(session_, &listener, own.c_str(), onProbe, this));
        check(rv_Listen(session_, &listener, kvx::ft::groupSubject(kGroup)->c_str(), onBeat, this));
        rvevm_Id id = nullptr;
        check(rv_AddRepeatTimer(session_, &id, kProbeMs, onTimer, this));
        check(rv_AddSignal(session_, &id, SIGTERM, onSignal, this));
        check(rv_AddHook(session_, RV_HOOK_DISCONNECT, onLink<false>, this));
        check(rv_AddHook(session_, RV_HOOK_RECONNECT, onLink<true>, this));
        rvft_MemberId member = nullptr;
        check(rvft_Join(session_, &member, kGroup, 50, 1, std::strtoul(arguments[1], nullptr, 10),
                        0, std::strtoul(arguments[2], nullptr, 10), onAction, this));
        probe_ = own;
        due_ = now() + kProbeMs * 1000;
        say("joined", now(), 0);
    }
    void run() { check(rv_RunOnce(session_)); }

  private:
    static void check(int status) {
        if (status == 0) return;
        std::fprintf(stderr, "status %d\n", status);
        std::exit(1);
    }
    static GroupMember& self(void* closure) { return *static_cast<GroupMember*>(closure); }

    static void onAction(rv_Session, const char*, int action, void* closure) {
        say(action == RVFT_ACTIVATE ? "active" : "inactive", now(), self(closure).betterHeard_);
    }
    static void onBeat(rv_Session, const char*, const char*, rvmsg_Type, rvmsg_Size,
                       rvmsg_Data data, void* closure) {
        const auto beat = kvx::ft::decodeBeat(data, kGroup);
        const bool isOwn =
            beat && beat->rank.id.starts_with(std::string(rv_SessionName(self(closure).session_)));
        if (!beat) return;
        GroupMember& member = self(closure);
        if (isOwn) {
            member.rank_ = beat->rank;
        } else if (!member.rank_ || beat->rank.isBetterThan(*member.rank_)) {
            member.betterHeard_ = now();
        }
    }
    // The loop's lateness, and a message that comes back with the bus's.
    static void onTimer(void*, void* closure, int, void*) {
        GroupMember& member = self(closure);
        if (now() > member.due_ + kLate) say("late", member.due_, now());
        member.due_ = now() + kProbeMs * 1000;
        const std::uint64_t sent = static_cast<std::uint64_t>(now());
        rv_Send(member.session_, member.probe_.c_str(), nullptr, RVMSG_UINT, sizeof sent, &sent);
    }
    static void onProbe(rv_Session, const char*, const char*, rvmsg_Type, rvmsg_Size,
                        rvmsg_Data data, void*) {
        std::uint64_t sent = 0;
        std::memcpy(&sent, data, sizeof sent);
        if (now() > static_cast<Micros>(sent) + kLate)
            say("late", static_cast<Micros>(sent), now());
    }
    template <bool isThere>
    static int onLink(rv_Session, const void*, void*) {
        say(isThere ? "connected" : "disconnected", now(), 0);
        return 0;
    }
    static void onSignal(void*, void* closure, int, void*) {
        say("leaves", now(), 0);
        rv_Close(self(closure).session_);
    }

    rv_Session session_ = nullptr;
    std::string probe_;
    Micros due_ = 0;
    Micros betterHeard_ = 0;
    std::optional<kvx::ft::Rank> rank_;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    GroupMember member(argv + 1);
    member.run();
    return 0;
}
