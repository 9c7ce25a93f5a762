#include "rvd/DaemonSubject.h"

#include <array>
#include <utility>

namespace kvx::rvd {
namespace {

constexpr std::string_view kFirst = "_RVD";
constexpr std::array<std::pair<std::string_view, DaemonSubject>, 9> kSecond = {{
    {"INTEREST", DaemonSubject::Interest},
    {"LOST", DaemonSubject::Lost},
    {"STATUS", DaemonSubject::Status},
    {"SESSIONS", DaemonSubject::Sessions},
    {"SUBJECTS", DaemonSubject::Subjects},
    {"TRACE", DaemonSubject::Trace},
    {"LATENCY", DaemonSubject::Latency},
    {kAnyElement, DaemonSubject::Any},
    {kAnyTrailingElements, DaemonSubject::Any},
}};

}  // namespace

DaemonSubject daemonSubjectOf(SubjectView subject) {
    if (subject.count() != 2 || subject.first() != kFirst) return DaemonSubject::None;
    const std::string_view second = subject[1];
    for (const auto& [name, meaning] : kSecond) {
        if (second == name) return meaning;
    }
    return DaemonSubject::None;
}

}  // namespace kvx::rvd
