// An engine has two sessions, and the first to find the daemon lost blocks for seconds in its
// attempts, so both are watched. The daemon is back as soon as the engine can send again. The other
// session may find the same loss only then, which is no news; and when the group's session returns
// first, the engine's is not up because it has not found its loss: a little later it has.
//
// An error report comes from any thread, without an object, so the state it needs is process-wide.

#include "examples/modeld/service/DaemonLink.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "examples/modeld/service/Log.h"

namespace modeld {

namespace {

constexpr unsigned long kDecideMs = 100;

std::atomic<bool> isAway{false};
std::atomic<unsigned> lossCount{0};
std::atomic<std::uint64_t> unsentCount{0};

void report(int code, const char* file, int line, const char* text) {
    if (isAway && code == kvx::kNotSent) {
        ++unsentCount;
        return;
    }
    Log::error("{}:{}: {} ({}){}{}", file != nullptr ? file : "", line,
               CVekError::CatalogueText(code), code, text != nullptr ? ": " : "",
               text != nullptr ? text : "");
}

}  // namespace

ReportsInLog::ReportsInLog() : before_(CVekError::SetHandler(report)) {}

ReportsInLog::~ReportsInLog() {
    CVekError::SetHandler(before_);
}

DaemonLink::DaemonLink(CVekEngine& engine)
    : engine_(engine),
      sessions_{engine.m_session->handle(),
                engine.m_ftSession ? engine.m_ftSession->handle() : nullptr} {}

DaemonLink::~DaemonLink() {
    for (rv_Session session : sessions_) {
        rv_RemoveHook(session, RV_HOOK_DISCONNECT, onLoss, this);
        rv_RemoveHook(session, RV_HOOK_RECONNECT, onReturn, this);
    }
}

bool DaemonLink::start() {
    return std::ranges::all_of(sessions_, [this](rv_Session session) {
        return session == nullptr || (rv_AddHook(session, RV_HOOK_DISCONNECT, onLoss, this) == 0 &&
                                      rv_AddHook(session, RV_HOOK_RECONNECT, onReturn, this) == 0);
    });
}

bool DaemonLink::isUp() {
    return !isAway;
}

unsigned DaemonLink::losses() {
    return lossCount;
}

std::uint64_t DaemonLink::unsent() {
    return unsentCount;
}

int DaemonLink::onLoss(rv_Session session, const void*, void* link) {
    auto* const self = static_cast<DaemonLink*>(link);
    const bool isGroups = session == self->sessions_[1];
    if (isGroups && std::exchange(self->groupIsLate_, false)) return 0;
    (isGroups ? self->groupHasSeen_ : self->engineHasSeen_) = true;
    if (isAway.exchange(true)) return 0;
    ++lossCount;
    Log::warning("the daemon is away; nothing can be sent until it is back");
    return 0;
}

int DaemonLink::onReturn(rv_Session session, const void*, void* link) {
    auto* const self = static_cast<DaemonLink*>(link);
    int status = kvx::kOk;
    if (session == self->sessions_[1] && !self->engineHasSeen_) {
        self->timer_.reset(self->engine_.RRNNewTimer(&status, kDecideMs, rv_FALSE, self, nullptr));
    } else if (rv_IsConnected(self->sessions_[0])) {
        self->back();
    }
    return 0;
}

void DaemonLink::onTimer(RvTimer*) {
    if (!engineHasSeen_) back();
}

void DaemonLink::back() {
    groupIsLate_ = sessions_[1] != nullptr && !groupHasSeen_;
    engineHasSeen_ = groupHasSeen_ = false;
    if (!isAway.exchange(false)) return;
    Log::info("the daemon is back; {} messages could not be sent meanwhile",
              unsentCount.exchange(0));
}

}  // namespace modeld
