#include "rva/Metrics.h"

#include <fmt/format.h>

#include <iterator>

namespace kvx::rva {

namespace {

using enum Metric::Kind;

double number(std::uint64_t value) {
    return static_cast<double>(value);
}

constexpr Metric kMetrics[] = {
    {"rva_ready", Gauge, "", "1 while the bus session is up, 0 while it is lost",
     [](const Sample& s) { return s.bus.ready ? 1.0 : 0.0; }},
    {"rva_lost_sessions", Counter, "sessions", "how often the session was lost",
     [](const Sample& s) { return number(s.bus.lostSessions); }},
    {"rva_heard_beats", Counter, "beats", "heartbeats heard",
     [](const Sample& s) { return number(s.bus.beats.heard); }},
    {"rva_ignored_messages", Counter, "messages", "messages where beats go that were none",
     [](const Sample& s) { return number(s.bus.beats.ignored); }},
    {"rva_known_services", Gauge, "services", "processes of services that have beaten lately",
     [](const Sample& s) { return number(s.bus.services); }},
    {"rva_silent_services", Gauge, "services", "those of them whose next beat is overdue",
     [](const Sample& s) { return number(s.bus.silentServices); }},
    {"rva_forgotten_services", Counter, "services",
     "processes dropped after 10 minutes of silence, or for want of room",
     [](const Sample& s) { return number(s.bus.beats.forgotten); }},
    {"rva_seen_messages", Counter, "messages", "messages and advisories that reached the agent",
     [](const Sample& s) { return number(s.bus.messages); }},
    {"rva_bus_warnings", Counter, "warnings", "advisories below _RV.WARN",
     [](const Sample& s) { return number(s.bus.warnings); }},
    {"rva_bus_errors", Counter, "errors", "advisories below _RV.ERROR",
     [](const Sample& s) { return number(s.bus.errors); }},
    {"rva_http_requests", Counter, "requests", "HTTP requests answered",
     [](const Sample& s) { return number(s.requests); }},
    {"process_cpu_seconds", Counter, "seconds", "processor time that the agent has used",
     [](const Sample& s) { return s.process.cpuSeconds; }},
    {"process_resident_memory_bytes", Gauge, "bytes", "memory that the agent occupies",
     [](const Sample& s) { return number(s.process.residentBytes); }},
    {"process_open_fds", Gauge, "fds", "descriptors that the agent has open",
     [](const Sample& s) { return number(s.process.openDescriptors); }},
    {"process_start_time_seconds", Gauge, "seconds", "when the agent started, since the epoch",
     [](const Sample& s) { return static_cast<double>(s.startSeconds); }},
};

}  // namespace

std::span<const Metric> metrics() {
    return kMetrics;
}

std::string metricsText(const Sample& sample) {
    std::string text;
    const auto out = std::back_inserter(text);
    for (const Metric& metric : kMetrics) {
        const bool counts = metric.kind == Counter;
        fmt::format_to(out, "# HELP {} {}\n# TYPE {} {}\n", metric.name, metric.meaning,
                       metric.name, counts ? "counter" : "gauge");
        if (*metric.unit != '\0') fmt::format_to(out, "# UNIT {} {}\n", metric.name, metric.unit);
        fmt::format_to(out, "{}{} {}\n", metric.name, counts ? "_total" : "", metric.value(sample));
    }
    return text + "# EOF\n";
}

}  // namespace kvx::rva
