// An engine has two sessions, and the first to find the daemon lost blocks for seconds in its
// attempts, so both are watched. The daemon is back as soon as the engine can send again.
//
// An error report comes from any thread, without an object, so the state it needs is process-wide.

#include "examples/modeld/service/DaemonLink.h"

#include <algorithm>
#include <atomic>

#include "examples/modeld/service/Log.h"

namespace modeld {

namespace {

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

DaemonLink::DaemonLink(const CVekEngine& engine)
    : sessions_{engine.m_session->handle(),
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

int DaemonLink::onLoss(rv_Session, const void*, void*) {
    ++lossCount;
    if (!isAway.exchange(true))
        Log::warning("the daemon is away; nothing can be sent until it is back");
    return 0;
}

int DaemonLink::onReturn(rv_Session, const void*, void* link) {
    if (!rv_IsConnected(static_cast<DaemonLink*>(link)->sessions_[0]) || !isAway.exchange(false))
        return 0;
    Log::info("the daemon is back; {} messages could not be sent meanwhile",
              unsentCount.exchange(0));
    return 0;
}

}  // namespace modeld
