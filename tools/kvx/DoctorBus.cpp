// What is seen over a session: services by their beats and answers, and the bridge.

#include "tools/kvx/Examination.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "tools/beats/BeatListener.h"
#include "tools/bus/Client.h"
#include "tools/bus/DaemonQuestion.h"
#include "tools/bus/HostsQuestion.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/AnswerProbe.h"
#include "tools/kvx/DaemonView.h"
#include "tools/kvx/Overheard.h"
#include "tools/kvx/Table.h"

namespace kvx::tool {

namespace {

using Json = bus::HostsQuestion::Json;

// Listens for as long as the options say, and asks what can be asked meanwhile.
class Look {
  public:
    explicit Look(Examination& examination)
        : examination_(examination),
          client_(openedBy(examination)),
          hosts_(*client_,
                 [this](bus::HostsQuestion::Outcome outcome, const Json& hosts) {
                     if (outcome == bus::HostsQuestion::Outcome::Hosts) found_->hosts = hosts;
                     if (outcome == bus::HostsQuestion::Outcome::Unreadable) found_->hosts = false;
                     awaitsHosts_ = false;
                     leaveWhenDone();
                 }),
          status_(client_->net(), bus::kStatusSubject,
                  [this](const Json& answer, const std::string& error) {
                      found_->status = answer;
                      found_->noStatus = error;
                      awaitsStatus_ = false;
                      leaveWhenDone();
                  }) {}

    [[nodiscard]] bool isUp() const { return client_->isUp(); }
    [[nodiscard]] std::string sessionName() { return rv_SessionName(client_->session().handle()); }
    [[nodiscard]] std::uint64_t lost() const { return client_->lostMessages(); }

    /// Null when the daemon was lost. Once.
    std::unique_ptr<Examination::Bus> take() {
        if (!listener_.listen(client_->net())) return nullptr;
        AnswerProbe probe(client_->net());
        std::unique_ptr<bus::Ticker> end;
        std::optional<bus::Progress> progress;
        client_->leaveWithoutDaemon();
        const int status = client_->run([&] {
            if (listens()) probe.askAll();
            asked_ = &probe;
            const auto timeoutMs = static_cast<unsigned long>(examination_.timeout());
            awaitsHosts_ = hosts_.ask(timeoutMs);
            status_.ask(RvMsg(), examination_.options.timeoutSeconds);
            end = std::make_unique<bus::Ticker>(client_->net(), listeningMs(),
                                                bus::Ticker::Repeat::Once, [this] {
                                                    hasListened_ = true;
                                                    leaveWhenDone();
                                                });
            progress.emplace(client_->net(), [] { return "listening for beats"; });
        });
        progress.reset();
        asked_ = nullptr;
        if (status != kSuccess) return nullptr;
        found_->services = table_.services(platform::monotonicMs());
        found_->answers = probe.answers();
        return std::move(found_);
    }

  private:
    // What the configuration file has to complain of is known by now.
    static std::unique_ptr<bus::Client> openedBy(const Examination& examination) {
        bus::BusOptions options = examination.options.connection;
        static_cast<DaemonAddress&>(options) = examination.address;
        const Overheard overheard;
        return std::make_unique<bus::Client>(options);
    }
    [[nodiscard]] bool listens() const { return examination_.options.waitSeconds > 0; }
    [[nodiscard]] unsigned long listeningMs() const {
        return std::max(1UL, static_cast<unsigned long>(examination_.options.waitSeconds * 1000));
    }
    void leaveWhenDone() {
        if (!awaitsHosts_ && !awaitsStatus_ && hasListened_) client_->leave(kSuccess);
    }
    void hear(std::span<const unsigned char> packet) {
        if (!table_.hear(packet, platform::monotonicMs()) || asked_ == nullptr) return;
        const auto beat = beats::readBeat(packet);
        const auto domain = examination_.options.connection.domainOrDefault();
        if (beat && beat->domain == domain) asked_->ask(beat->service);
    }

    Examination& examination_;
    std::unique_ptr<Examination::Bus> found_ = std::make_unique<Examination::Bus>();
    std::unique_ptr<bus::Client> client_;  // never null
    bus::HostsQuestion hosts_;
    bus::DaemonQuestion status_;
    beats::BeatTable table_;
    beats::BeatListener listener_{[this](auto packet) { hear(packet); },
                                  [this](const auto& beat) {
                                      table_.hear(beat, platform::monotonicMs(),
                                                  platform::wallMilliseconds());
                                  }};
    AnswerProbe* asked_ = nullptr;  // while it listens
    bool awaitsHosts_ = true;
    bool awaitsStatus_ = true;
    bool hasListened_ = false;
};

constexpr double kNearlyFull = 0.8;  // of a limit

void warnOfFullness(Examination& examination, const char* what, double used, double limit,
                    const std::string& text, const char* mend) {
    if (limit > 0 && used >= kNearlyFull * limit) {
        examination.warn(fmt::format("{} are nearly used up: {}", what, text), mend);
    }
}

void reportStatus(Examination& examination, const Json& status) {
    const Json& memory = objectIn(status, "memory");
    const Json& counters = objectIn(status, "counters");
    const auto open = numberIn(counters, "connections_open");
    const auto most = numberIn(status, "connection_limit");
    const std::string held = fmt::format("{} of {}", bytesText(realIn(memory, "used")),
                                         bytesText(realIn(memory, "limit")));
    const std::string connections = fmt::format("{} of {}", countText(open), countText(most));
    examination.ok(fmt::format(
        "rvd {}, process {}, up for {}; memory {}, connections {}, {} may wait for one session",
        textIn(status, "version"), numberIn(status, "pid"), spanText(numberIn(status, "age_ms")),
        held, connections, bytesText(realIn(status, "queue_limit"))));
    if (textIn(status, "version") != kvxVersion()) {
        examination.warn(
            fmt::format("rvd has version {}, kvx {}", textIn(status, "version"), kvxVersion()),
            "start the daemon anew from this installation");
    }
    warnOfFullness(examination, "rvd's bytes for sessions", realIn(memory, "used"),
                   realIn(memory, "limit"), held,
                   "'kvx sessions' and 'kvx why-slow' name who holds them; raise -memory");
    warnOfFullness(examination, "rvd's descriptors", static_cast<double>(open),
                   static_cast<double>(most), connections,
                   "raise LimitNOFILE of its unit; 'kvx sessions' lists who is there");
}

void reportLosses(Examination& examination, const Json& counters) {
    struct Loss {
        const char* counter;
        const char* text;
        const char* mend;
    };
    static constexpr Loss kLosses[] = {
        {"dropped_queue", "messages were dropped for sessions that read too slowly",
         "'kvx why-slow' names them; 'kvx explain slow reader'"},
        {"dropped_memory", "messages were dropped because rvd's memory was full",
         "'kvx why-slow'; 'kvx explain daemon memory'"},
        {"connections_refused", "connections were refused for want of descriptors",
         "raise LimitNOFILE of rvd's unit"},
        {"connections_evicted", "sessions were closed because they held most of a full memory",
         "see rvd's log; raise -memory"},
    };
    for (const auto& loss : kLosses) {
        const auto count = numberIn(counters, loss.counter);
        if (count == 0) continue;
        examination.warn(fmt::format("since its start {} {}", countText(count), loss.text),
                         loss.mend);
    }
}

std::string nameOf(const beats::Beat& beat) {
    return fmt::format("{}.{} ({}:{})", beat.service, beat.domain, beat.host, beat.pid);
}

void warnOfPrimaries(Examination& examination, const std::vector<beats::Service>& services) {
    std::map<std::string, std::vector<std::string>> primaries;
    for (const auto& service : services) {
        if (!service.isPrimary() || service.isSilent(platform::monotonicMs())) continue;
        primaries[service.beat.service + "." + service.beat.domain].push_back(nameOf(service.beat));
    }
    for (const auto& [name, members] : primaries) {
        if (members.size() < 2) continue;
        examination.warn(
            fmt::format("{} are or were primary: {}", members.size(), fmt::join(members, ", ")),
            "nothing after a take-over; else let them agree in group, tier and space");
    }
}

void warnOfSilence(Examination& examination, const std::vector<beats::Service>& services) {
    for (const auto& service : services) {
        if (service.missed(platform::monotonicMs()) == 0) continue;
        examination.warn(nameOf(service.beat) + " has missed a beat",
                         "look at that process: it hangs, has ended, or its loop is busy");
    }
}

void reportHost(Examination& examination, const Json& host) {
    const std::string name = host.value("host", "");
    const bool isUp = host.value("up", false);
    if (!isUp && host.value("self", false)) {
        examination.warn("the bridge has no connection to its NATS server",
                         "look at its log, and at that server");
    } else if (!isUp) {
        examination.warn(fmt::format("host {} is gone", name), "look at that host and the line");
    }
    const std::string lost = bus::lostText(host);
    if (!lost.empty()) {
        examination.warn(fmt::format("messages of host {} were lost: {}", name, lost),
                         "see 'kvx explain CAUSE'");
    }
}

}  // namespace

void checkSession(Examination& examination) {
    if (!examination.daemonAnswers) return;
    examination.expect("the daemon has fallen silent", "look at its log; start it anew");
    Look look(examination);
    if (!look.isUp()) {
        examination.fail("no session can be opened; standard error has the reason",
                         "see 'kvx explain' for that reason");
        return;
    }
    const std::string name = look.sessionName();
    examination.bus = look.take();
    if (!examination.bus) {
        examination.fail("the daemon was lost meanwhile", "look at its log");
    } else if (look.lost() != 0) {
        examination.warn(fmt::format("rvd dropped {} messages for this session", look.lost()),
                         "look at the load of this host");
    } else {
        examination.ok(fmt::format("{} in service '{}', network '{}'", name,
                                   examination.address.service, examination.address.network));
    }
}

void checkStatus(Examination& examination) {
    if (!examination.bus) return;
    if (!examination.bus->noStatus.empty()) {
        return examination.warn(examination.bus->noStatus, "install rvd and kvx of one version");
    }
    const Json& status = examination.bus->status;
    reportStatus(examination, status);
    reportLosses(examination, objectIn(status, "counters"));
}

void checkServices(Examination& examination) {
    if (!examination.bus) return;
    if (examination.options.waitSeconds == 0) {
        return examination.ok("none was listened for, with --wait 0");
    }
    const auto& services = examination.bus->services;
    const auto& answers = examination.bus->answers;
    std::vector<std::string> names;
    names.reserve(services.size());
    for (const auto& service : services) names.push_back(nameOf(service.beat));
    std::vector<std::string> answering;
    answering.reserve(answers.size());
    for (const auto& answer : answers) answering.push_back(answer.service);
    examination.ok(fmt::format(
        "{}; {}", names.empty() ? "none beats" : fmt::format("beating: {}", fmt::join(names, ", ")),
        answering.empty() ? "none answers queries"
                          : fmt::format("answering: {}", fmt::join(answering, ", "))));
    warnOfSilence(examination, services);
    warnOfPrimaries(examination, services);
    for (const auto& answer : answers) {
        if (answer.answerers.size() < 2) continue;
        examination.warn(fmt::format("{} answer on {}: {}", answer.answerers.size(), answer.subject,
                                     fmt::join(answer.answerers, ", ")),
                         "make them one group, or give them different names");
    }
}

void checkBridges(Examination& examination) {
    if (!examination.bus) return;
    const auto& hosts = examination.bus->hosts;
    if (hosts.is_null()) {
        return examination.ok("none serves this daemon; one host needs none");
    }
    try {
        std::vector<std::string> names;
        for (const auto& host : hosts) names.push_back(host.value("host", ""));
        examination.ok(fmt::format("the bridge answers; hosts: {}", fmt::join(names, ", ")));
        for (const auto& host : hosts) reportHost(examination, host);
    } catch (const Json::exception&) {
        examination.warn("the bridge's answer cannot be read",
                         "install rvbridge and kvx of one version");
    }
}

}  // namespace kvx::tool
