#include "rva/Metrics.h"

#include <fmt/format.h>

#include <iterator>
#include <string_view>

#include "rva/DaemonMetrics.h"

namespace kvx::rva {

namespace {

using enum Metric::Kind;

template <class Value>
auto single(Value value) {
    return [value](const Sample& sample, Samples& samples) {
        samples.add(static_cast<double>(value(sample)));
    };
}

void collectSilence(const Sample& sample, Samples& samples) {
    for (const auto& service : sample.bus.quietest) {
        const beats::Beat& beat = service.beat;
        samples.add(static_cast<double>(service.age(sample.bus.now)) / 1'000,
                    {{"service", beat.service},
                     {"domain", beat.domain},
                     {"host", beat.host},
                     {"pid", std::to_string(beat.pid)},
                     {"role", beats::roleOf(service)}});
    }
}

std::vector<Metric> agentMetrics() {
    return {
        {"rva_ready", Gauge, "", "1 while the bus session is up, 0 while it is lost",
         single([](const Sample& s) { return s.bus.ready ? 1 : 0; })},
        {"rva_lost_sessions_total", Counter, "", "how often the session was lost",
         single([](const Sample& s) { return s.bus.lostSessions; })},
        {"rva_heard_beats_total", Counter, "", "heartbeats heard",
         single([](const Sample& s) { return s.bus.beats.heard; })},
        {"rva_ignored_messages_total", Counter, "", "messages where beats go that were none",
         single([](const Sample& s) { return s.bus.beats.ignored; })},
        {"rva_known_services", Gauge, "", "processes of services that have beaten lately",
         single([](const Sample& s) { return s.bus.services; })},
        {"rva_silent_services", Gauge, "", "those of them whose next beat is overdue",
         single([](const Sample& s) { return s.bus.silentServices; })},
        {"rva_service_silence_seconds", Gauge, "service domain host pid role",
         "time since the last beat, of the 20 processes that are silent longest", collectSilence},
        {"rva_forgotten_services_total", Counter, "",
         "processes dropped after 10 minutes of silence, or for want of room",
         single([](const Sample& s) { return s.bus.beats.forgotten; })},
        {"rva_seen_messages_total", Counter, "", "messages and advisories that reached the agent",
         single([](const Sample& s) { return s.bus.messages; })},
        {"rva_bus_warnings_total", Counter, "", "advisories below _RV.WARN",
         single([](const Sample& s) { return s.bus.warnings; })},
        {"rva_bus_errors_total", Counter, "", "advisories below _RV.ERROR",
         single([](const Sample& s) { return s.bus.errors; })},
        {"rva_http_requests_total", Counter, "", "HTTP requests answered",
         single([](const Sample& s) { return s.requests; })},
        {"process_cpu_seconds_total", Counter, "", "processor time that the agent has used",
         single([](const Sample& s) { return s.process.cpuSeconds; })},
        {"process_resident_memory_bytes", Gauge, "", "memory that the agent occupies",
         single([](const Sample& s) { return s.process.residentBytes; })},
        {"process_open_fds", Gauge, "", "descriptors that the agent has open",
         single([](const Sample& s) { return s.process.openDescriptors; })},
        {"process_start_time_seconds", Gauge, "", "when the agent started, since the epoch",
         single([](const Sample& s) { return s.startSeconds; })},
    };
}

std::vector<Metric> allMetrics() {
    auto all = agentMetrics();
    auto daemons = daemonMetrics();
    std::ranges::move(daemons, std::back_inserter(all));
    return all;
}

}  // namespace

const std::vector<Metric>& metrics() {
    static const std::vector<Metric> kMetrics = allMetrics();
    return kMetrics;
}

std::string metricsText(const Sample& sample) {
    std::string text;
    for (const Metric& metric : metrics()) {
        Samples samples;
        metric.collect(sample, samples);
        if (samples.empty()) continue;
        text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", metric.name, metric.meaning,
                            metric.kind == Counter ? "counter" : "gauge");
        text += samples.text(metric.name);
    }
    return text;
}

}  // namespace kvx::rva
