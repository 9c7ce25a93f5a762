#include "rva/Observations.h"

#include <algorithm>

namespace kvx::rva {

namespace {

std::vector<beats::Service> quietestOf(std::vector<beats::Service> services) {
    const auto shown =
        services.begin() + static_cast<std::ptrdiff_t>(std::min(services.size(), Rows::kShown));
    std::ranges::partial_sort(services, shown, {}, &beats::Service::lastHeard);
    services.erase(shown, services.end());
    return services;
}

}  // namespace

void Observations::hearPacket(std::span<const unsigned char> packet, Milliseconds now) {
    const std::lock_guard guard(mutex_);
    ++messages_;
    table_.hear(packet, now);
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
    ++lostSessions_;
}

void Observations::gainSession() {
    const std::lock_guard guard(mutex_);
    ready_ = true;
}

bool Observations::isReady() const {
    const std::lock_guard guard(mutex_);
    return ready_;
}

std::vector<beats::Service> Observations::services(Milliseconds now) {
    const std::lock_guard guard(mutex_);
    table_.forgetSilent(now);
    return table_.services();
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
            quietestOf(table_.services()),
            now,
            daemon_};
}

void Observations::showDaemon(const DaemonFigures& daemon) {
    const std::lock_guard guard(mutex_);
    daemon_ = daemon;
}

}  // namespace kvx::rva
