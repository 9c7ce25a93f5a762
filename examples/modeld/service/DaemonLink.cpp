// The bus announces the loss, by an advisory that precedes any attempt to reconnect, but not the
// return. An engine has two sessions, and the first to find the daemon lost blocks for seconds in
// its attempts, so this listens on both. While the daemon is lost, the engine's link is checked at
// every tick.
//
// An error report comes from any thread, without an object, so the state it needs is process-wide.

#include "examples/modeld/service/DaemonLink.h"

#include <atomic>

#include "examples/modeld/service/Log.h"
#include "mom/base/VekCodes.h"
#include "rv/error/rvCodes.h"

namespace modeld {

namespace {

constexpr int kLookMs = 100;

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

bool DaemonLink::start() {
    if (engine_.m_ftSession) {
        onGroupSession_.reset(
            engine_.m_ftSession->newListener(kvx::advisory::kDisconnectedSubject, this, nullptr));
    }
    return engine_.RRNAddExService(kvx::advisory::kDisconnectedSubject, this) == 1 &&
           engine_.RRNAddRepeatTimer(kLookMs, this) == 1;
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

void DaemonLink::onData(const char*, RvSender*, const RvDatum&, RvListener*) {
    ++lossCount;
    if (!isAway.exchange(true))
        Log::warning("the daemon is away; nothing can be sent until it is back");
}

void DaemonLink::onTimer(RvTimer*) {
    if (!isAway || rv_Flush(engine_.m_session->handle(), 0) == kvx::session_code::kNotConnected)
        return;
    isAway = false;
    const auto unsent = unsentCount.exchange(0);
    Log::info("the daemon is back; {} messages could not be sent meanwhile", unsent);
}

}  // namespace modeld
