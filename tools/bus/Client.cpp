#include "tools/bus/Client.h"

#include <fmt/format.h>

#include <memory>
#include <string_view>
#include <utility>

#include "kvx/NoDaemon.h"
#include "platform/Memory.h"
#include "tools/bus/Complain.h"

namespace kvx::bus {

namespace {

constexpr const char* kNoDaemon = "-";

std::string messages(std::uint64_t count) {
    return fmt::format("{} message{}", count, count == 1 ? "" : "s");
}

}  // namespace

Client::Client(const BusOptions& options, unsigned long latencyMs)
    : qualify_(!options.domain.empty()),
      net_(latencyMs, options.domainOrDefault().c_str(), options) {
    daemon_ = net_.RRNAddress().daemon;
    if (rv_DaemonsStarted() != daemonsBefore_) {
        complain(fmt::format("started a bus daemon at {}, since none answered there", daemon_));
    }
    const bool hasSession = net_.m_sessionUp == 1 && net_.m_session;
    if (hasSession && daemon_ == kNoDaemon) {
        complain("the daemon '-' is none: there is nobody to talk to");
    } else if (!hasSession) {
        complain(fmt::format("no session with the bus daemon at {}: {}", daemon_,
                             kvx::detail::noDaemon(net_).text));
    } else if (watchSession()) {
        isUp_ = true;
        if (options.verbose) complain(sessionText());
    } else {
        complain(fmt::format("the bus daemon is lost ({})", daemon_));
    }
}

Client::~Client() {
    changed_ = nullptr;  // it may refer to destroyed objects
}

std::string Client::sessionText() {
    const DaemonAddress address = net_.RRNAddress();
    return fmt::format("session {} with the bus daemon at {}, service '{}', network '{}'",
                       rv_SessionName(session().handle()), address.daemon, address.service,
                       address.network);
}

bool Client::watchSession() {
    const rv_Session session = net_.m_session->handle();
    const auto lost = [](rv_Session, const void*, void* client) {
        static_cast<Client*>(client)->changeDaemon(false);
        return 0;
    };
    const auto back = [](rv_Session, const void*, void* client) {
        static_cast<Client*>(client)->changeDaemon(true);
        return 0;
    };
    return rv_AddHook(session, RV_HOOK_DISCONNECT, lost, this) == 0 &&
           rv_AddHook(session, RV_HOOK_RECONNECT, back, this) == 0 &&
           net_.RRNAddExService(kvx::advisory::kDataLossSubject, this) == kOk &&
           net_.RRNAddExService(kvx::advisory::kRefusedSubject, this) == kOk &&
           rv_IsConnected(session);
}

void Client::changeDaemon(bool isThere) {
    complain(fmt::format("the bus daemon is {} ({})", isThere ? "back" : "lost", daemon_));
    if (changed_) changed_(isThere);
}

void Client::onData(const char* subject, RvSender*, const RvDatum& data, RvListener*) {
    if (std::string_view(subject) == kvx::advisory::kRefusedSubject) {
        complain(fmt::format("no session with the bus daemon at {}: {}", daemon_,
                             kvx::detail::noDaemon(net_).text));
        return leave(kFailure);
    }
    unsigned long lost = 0;
    if (data.type() != RVMSG_MSG) return;
    if (!(static_cast<const RvMsg&>(data).get("lost", lost) == RvStatus(0))) return;
    lostMessages_ += lost;
    complain(fmt::format("lost {}: the bus daemon dropped what this program was too slow to take",
                         messages(lost)));
}

std::string Client::qualified(const std::string& subject) {
    if (!qualify_) return subject;
    const kvx::Text text(net_.RRNDomainSubj(subject.c_str()));
    return text ? text.get() : subject;
}

void Client::leaveWithoutDaemon() {
    onDaemonChange([this](bool isThere) {
        if (!isThere) leave(kFailure);
    });
}

int Client::run(std::function<void()> whenRunning) {
    if (!rv_IsConnected(session().handle())) return kFailure;
    net_.RRNSetPostInitFns(std::move(whenRunning));
    {
        const std::lock_guard guard(loopLock_);
        exitStatus_ = kFailure;
        loop_ = rv_EventManager(session().handle());
    }
    net_.RRNDoIt();
    const std::lock_guard guard(loopLock_);
    loop_ = nullptr;
    return exitStatus_;
}

void Client::stopLoopFromOutside() {
    const std::lock_guard guard(loopLock_);
    if (loop_ == nullptr) return;
    exitStatus_ = 0;
    rvevm_Stop(loop_);
}

int Client::wrapUp() {
    const std::uint64_t lost = lostMessages_;
    if (lost != 0 && !hasWrappedUp_.exchange(true)) {
        complain(fmt::format("lost {} in all", messages(lost)));
    }
    if (lost != 0 && failsOnLoss_) exitStatus_ = kFailure;
    return exitStatus_;
}

int Client::runUntilSignal(std::function<void()> whenRunning) {
    CMOMSignalHandler signals;
    signals.manage(&net_, [this] { leave(0); });
    signals_.emplace([this] { stopLoopFromOutside(); }, [this] { return wrapUp(); });
    run(std::move(whenRunning));
    signals.stop();
    return wrapUp();
}

void Client::leave(int exitStatus) {
    exitStatus_ = exitStatus;
    net_.RRNStopLoop();
}

}  // namespace kvx::bus
