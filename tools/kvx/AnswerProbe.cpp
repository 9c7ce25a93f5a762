#include "tools/kvx/AnswerProbe.h"

#include <set>

namespace kvx::tool {

namespace {

constexpr const char* kProbeText = "select * from services limit 0";

}  // namespace

AnswerProbe::AnswerProbe(CVekRvNet& net, unsigned long waitMs) {
    std::set<std::string> subjects;
    for (const auto& service : CVekServiceToSubjectMapper::ms_ServiceEnumMap) {
        const char* subject = CVekServiceToSubjectMapper::ServiceEnumToQuerySubject(service.value);
        if (subjects.insert(subject).second) add(net, service.name, subject, waitMs);
    }
}

void AnswerProbe::add(CVekRvNet& net, const char* name, const char* subject, unsigned long waitMs) {
    Probe& probe = probes_.emplace_back();
    probe.answer = {name, subject, 0};
    probe.query = std::make_unique<Query>(net, waitMs, [this, &probe] {
        const std::chrono::duration<double, std::milli> spent = Clock::now() - begin_;
        probe.answer.milliseconds = spent.count();
    });
}

void AnswerProbe::ask() {
    begin_ = Clock::now();
    // A question that cannot be sent is one that nobody answers.
    for (auto& probe : probes_) {
        static_cast<void>(probe.query->ask(probe.answer.subject, kProbeText));
    }
}

std::vector<Answer> AnswerProbe::answers() const {
    std::vector<Answer> given;
    for (const auto& probe : probes_) {
        if (probe.query->isComplete()) given.push_back(probe.answer);
    }
    return given;
}

}  // namespace kvx::tool
