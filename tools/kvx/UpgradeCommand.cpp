// kvx upgrade: has the daemon replaced by the program that is installed now, and waits for it.

#include <fmt/format.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Process.h"
#include "platform/Signals.h"
#include "platform/Socket.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/DaemonView.h"

namespace kvx::tool {

namespace {

constexpr unsigned long kAskAgainMs = 20;

// Process numbers are those of one host: one on whose addresses a socket can be bound.
bool isHere(std::string_view daemon) {
    if (daemon.starts_with("unix:")) return true;
    const auto host = daemon.find(':');
    const auto port = daemon.rfind(':');
    if (host == port) return true;
    const auto address =
        platform::resolveHost(std::string(daemon.substr(host + 1, port - host - 1)));
    int error = 0;
    return address && platform::listenTcp({*address, 0}, error);
}

class Upgrade {
  public:
    Upgrade(bus::Client& client, const DaemonOptions& options)
        : client_(client),
          options_(options),
          status_(client.net(), bus::kStatusSubject,
                  [this](const Json& answer, const std::string& error) { take(answer, error); }) {}

    void start() {
        ask();
        deadline_.emplace(client_.net(), static_cast<unsigned long>(options_.timeoutSeconds * 1000),
                          bus::Ticker::Repeat::Once, [this] {
                              give(fmt::format("rvd is still process {} after {:g} s: see its log",
                                               pid_, options_.timeoutSeconds));
                          });
    }

  private:
    void ask() { status_.ask(RvMsg(), options_.timeoutSeconds); }
    void give(const std::string& error) {
        bus::complain(error);
        client_.leave(kFailure);
    }

    void take(const Json& answer, const std::string& error) {
        if (!error.empty()) return give(error);
        if (pid_ == 0) {
            before_ = answer;
            pid_ = numberIn(answer, "pid");
            if (const std::string reason = signal(); !reason.empty()) return give(reason);
        } else if (numberIn(answer, "pid") != pid_) {
            show(answer);
            return client_.leave(kSuccess);
        } else if (numberIn(answer, "not_replaced") != numberIn(before_, "not_replaced")) {
            return give("rvd goes on as it is: " + textIn(answer, "not_replaced_why"));
        }
        again_.emplace(client_.net(), kAskAgainMs, bus::Ticker::Repeat::Once, [this] { ask(); });
    }

    // Why it cannot be asked; empty when it has been.
    std::string signal() {
        if (!before_.contains("state_version")) {
            return fmt::format("rvd {} cannot be replaced while it works: restart it",
                               textIn(before_, "version"));
        }
        const auto program = platform::programName(pid_);
        if (!isHere(client_.daemon()) || (program && !program->starts_with("rvd"))) {
            return fmt::format("the daemon at {} is not on this host: run kvx upgrade there",
                               client_.daemon());
        }
        if (platform::sendSignal(pid_, platform::signal_number::user2())) return {};
        return fmt::format("process {} cannot be told: it belongs to another user, or container",
                           pid_);
    }

    void show(const Json& after) {
        if (options_.connection.json) {
            return printRows(Json::array({{{"from", before_}, {"to", after}}}));
        }
        const auto sessions = numberIn(after.value("counters", Json::object()), "sessions_open");
        bus::printLine(
            fmt::format("rvd {} (process {}) was replaced by rvd {} (process {}), "
                        "which has its {} session{}",
                        textIn(before_, "version"), pid_, textIn(after, "version"),
                        numberIn(after, "pid"), sessions, sessions == 1 ? "" : "s"));
    }

    bus::Client& client_;
    const DaemonOptions& options_;
    bus::DaemonQuestion status_;
    std::optional<bus::Ticker> again_;
    std::optional<bus::Ticker> deadline_;
    Json before_;
    std::uint64_t pid_ = 0;  // of the one to be replaced; 0: not known yet
};

}  // namespace

int upgrade(const DaemonOptions& options) {
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    client.leaveWithoutDaemon();
    Upgrade upgrade(client, options);
    return client.run([&upgrade] { upgrade.start(); });
}

}  // namespace kvx::tool
