#include "rva/Observations.h"

namespace kvx::rva {

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
    return {
        ready_,    lostSessions_, table_.counters(), table_.size(), table_.silent(now), messages_,
        warnings_, errors_};
}

}  // namespace kvx::rva
