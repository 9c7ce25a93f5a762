#include "tools/bus/HostsQuestion.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kvx::bus {

namespace {

constexpr const char* kSubject = "_RVD.HOSTS";

}  // namespace

bool HostsQuestion::ask(unsigned long timeoutMs) {
    sender_.reset(client_.session().newSender(kSubject));
    if (sender_) {
        inbox_.reset(sender_->sendRequest(RvDatum(RVMSG_STRING, 0, ""), timeoutMs, this, nullptr));
    }
    return inbox_ != nullptr;
}

void HostsQuestion::onData(const char*, RvSender*, const RvDatum& data, RvListener*) {
    const auto* const text = static_cast<const char*>(data.data());
    const Json hosts = data.type() == RVMSG_STRING ? Json::parse(text, nullptr, false)
                                                   : Json(Json::value_t::discarded);
    const bool isReadable =
        hosts.is_array() &&
        std::all_of(hosts.begin(), hosts.end(), [](const Json& host) { return host.is_object(); });
    finish(isReadable ? Outcome::Hosts : Outcome::Unreadable, hosts);
}

void HostsQuestion::onTimeout(RvListener*) {
    finish(Outcome::Silence, Json());
}

void HostsQuestion::finish(Outcome outcome, const Json& hosts) {
    if (const auto answered = std::exchange(answered_, nullptr)) answered(outcome, hosts);
}

std::string lostText(const HostsQuestion::Json& host) {
    std::string text;
    const auto lost = host.value("lost", HostsQuestion::Json::object());
    for (const auto& [cause, messages] : lost.items()) {
        text +=
            fmt::format("{}{} {}", text.empty() ? "" : ", ", messages.get<std::uint64_t>(), cause);
    }
    return text;
}

}  // namespace kvx::bus
