#include "rva/Observations.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace kvx::rva {

namespace {

std::vector<beats::Service> quietestOf(std::vector<beats::Service> services) {
    const auto shown =
        services.begin() + static_cast<std::ptrdiff_t>(std::min(services.size(), Rows::kShown));
    std::ranges::partial_sort(services, shown, {}, &beats::Service::lastHeard);
    services.erase(shown, services.end());
    return services;
}

const char* nameOf(Answering how) {
    switch (how) {
        case Answering::Answers:
            return "answers";
        case Answering::Silent:
            return "silent";
        case Answering::Refuses:
            return "refuses";
        case Answering::Lost:
            return "lost";
        default:
            return "not yet";
    }
}

std::string dumped(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

void Observations::hearPacket(std::span<const unsigned char> packet, Milliseconds now) {
    const std::lock_guard guard(mutex_);
    ++messages_;
    table_.hear(packet, now);
}

void Observations::hearMember(const beats::MemberBeat& beat, Milliseconds now) {
    const std::lock_guard guard(mutex_);
    table_.hear(beat, now, platform::wallMilliseconds());
}

void Observations::hearAdvisory(std::string_view subject) {
    const std::lock_guard guard(mutex_);
    ++messages_;
    if (subject.starts_with("_RV.WARN.")) ++warnings_;
    if (subject.starts_with("_RV.ERROR.")) ++errors_;
}

void Observations::loseSession() {
    const std::lock_guard guard(mutex_);
    ready_ = false;
    sinceMs_ = platform::wallMilliseconds();
    ++lostSessions_;
}

void Observations::gainSession() {
    const std::lock_guard guard(mutex_);
    ready_ = true;
    table_.resume(platform::monotonicMs());
    sinceMs_ = platform::wallMilliseconds();
}

bool Observations::isReady() const {
    const std::lock_guard guard(mutex_);
    return ready_;
}

std::vector<beats::Service> Observations::services(Milliseconds now) {
    const std::lock_guard guard(mutex_);
    table_.forgetSilent(now);
    return table_.services(now);
}

Figures Observations::figures(Milliseconds now) {
    const std::lock_guard guard(mutex_);
    table_.forgetSilent(now);
    return {ready_,
            lostSessions_,
            table_.counters(),
            table_.size(),
            table_.silent(now),
            messages_,
            warnings_,
            errors_,
            quietestOf(table_.services(now)),
            now,
            daemon_};
}

void Observations::showDaemon(const DaemonFigures& daemon) {
    const std::lock_guard guard(mutex_);
    daemon_ = daemon;
}

void Observations::showHosts(Json hosts) {
    const std::lock_guard guard(mutex_);
    hosts_ = std::move(hosts);
}

void Observations::setInterval(unsigned seconds) {
    const std::lock_guard guard(mutex_);
    history_.setInterval(seconds);
}

History::Entry Observations::note() {
    const std::lock_guard guard(mutex_);
    const Milliseconds now = platform::monotonicMs();
    table_.forgetSilent(now);
    return history_.add(daemon_, table_.size(), table_.silent(now), platform::wallSeconds(), now);
}

std::string Observations::servicesJson() {
    const Milliseconds now = platform::monotonicMs();
    std::string rows;
    for (const auto& service : services(now)) {
        rows.append(rows.empty() ? "" : ",\n").append(beats::serviceAsJson(service, now));
    }
    return fmt::format(R"({{"connected":{},"daemon":{},"domain":{},"services":[{}]}})", isReady(),
                       bus::jsonString(daemonAddress_), bus::jsonString(domain_), rows);
}

Json Observations::connection() const {
    return {{"connected", ready_},
            {"daemon", daemonAddress_},
            {"why", ready_ ? "" : "the bus daemon is lost"},
            {"since_ms", sinceMs_}};
}

std::string Observations::connectionJson() const {
    const std::lock_guard guard(mutex_);
    return dumped(connection());
}

std::string Observations::busJson() const {
    const std::lock_guard guard(mutex_);
    const auto& state = daemon_.state(Topic::Status);
    Json json = connection();
    json["figures"] = nameOf(state.how);
    json["age_seconds"] =
        state.answered ? Json(static_cast<double>(platform::monotonicMs() - *state.answered) / 1000)
                       : Json(nullptr);
    json["status"] = daemon_.status();
    json["sessions"] = daemon_.sessions().kept;
    json["more_sessions"] = daemon_.sessions().more;
    json["subjects"] = daemon_.subjects().kept;
    json["more_subjects"] = daemon_.subjects().more;
    json["hosts"] = hosts_;
    return dumped(json);
}

std::string Observations::historyJson() const {
    const std::lock_guard guard(mutex_);
    return dumped(history_.columns());
}

}  // namespace kvx::rva
