#include "tools/bus/Client.h"

#include <memory>
#include <utility>

#include "mom/net/VekText.h"

namespace kvx::bus {

namespace {

// What a signal does to a program that has something to finish.
class LeaveOnSignal : public CCallbackBase {
  public:
    explicit LeaveOnSignal(Client& client) : client_(client) {}
    void operator()() override { client_.leave(0); }

  private:
    Client& client_;
};

}  // namespace

Client::Client(const Connection& connection, unsigned long latencyMs)
    : Client(ConfigurationOverlay(connection), connection, latencyMs) {}

Client::Client(const ConfigurationOverlay& overlay, const Connection& connection,
               unsigned long latencyMs)
    : configured_(overlay.isInEffect()),
      qualify_(!connection.domain.empty()),
      net_(latencyMs, connection.domainOrDefault().c_str()) {}

std::string Client::qualified(const std::string& subject) {
    if (!qualify_) return subject;
    const kvx::Text text(net_.RRNDomainSubj(subject.c_str()));
    return text ? text.get() : subject;
}

int Client::run(std::function<void()> whenRunning) {
    net_.whenRunning = std::move(whenRunning);
    net_.RRNDoIt();
    return exitStatus_;
}

int Client::runUntilSignal(std::function<void()> whenRunning) {
    CMOMSignalHandler signals;
    signals.manage(&net_);
    // The process's catcher keeps the callback until the process ends.
    signals.registerHandler(std::make_unique<LeaveOnSignal>(*this).release());
    const int status = run(std::move(whenRunning));
    signals.stop();
    return status;
}

void Client::leave(int exitStatus) {
    exitStatus_ = exitStatus;
    net_.RRNStopLoop();
}

}  // namespace kvx::bus
