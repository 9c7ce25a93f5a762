// Each metric is a row that names the fields of the daemon's answer it is made from. Fields that
// the daemon does not tell, an older one for instance, have no samples. Of sessions and subjects
// the foremost have samples of their own, and the others one together, {session="other"}; not so
// for counters, since the sum of some sessions falls when one of them ends: totals have the rest.

#include "rva/DaemonMetrics.h"

#include <array>
#include <cstdint>
#include <string>
#include <utility>

#include "tools/bus/DaemonAnswer.h"

namespace kvx::rva {

namespace {

using enum Metric::Kind;
using bus::numberIn;
using bus::realIn;
using bus::textIn;

constexpr double kMillisecondsInSecond = 1'000;
constexpr double kNanosecondsInSecond = 1e9;

constexpr std::array<std::pair<Answering, const char*>, 4> kStates = {
    {{Answering::Answers, "answers"},
     {Answering::Silent, "silent"},
     {Answering::Refuses, "refuses"},
     {Answering::Lost, "lost"}}};
constexpr std::array<std::pair<Topic, const char*>, kTopics> kTopicNames = {
    {{Topic::Status, "status"}, {Topic::Sessions, "sessions"}, {Topic::Subjects, "subjects"}}};

using Collect = decltype(Metric::collect);

bool hasFigures(const Sample& sample, Topic topic) {
    return sample.bus.daemon.state(topic).how == Answering::Answers;
}

void addField(Samples& samples, const Json& object, const std::string& field, double divisor,
              const Samples::Labels& labels = {}) {
    if (object.contains(field)) samples.add(realIn(object, field.c_str()) / divisor, labels);
}

// "" is the whole.
const Json& partOf(const Sample& sample, const char* part) {
    const Json& status = sample.bus.daemon.status();
    return *part == '\0' ? status : bus::objectIn(status, part);
}

Collect fieldOf(const char* part, const char* field, double divisor = 1) {
    return [=](const Sample& sample, Samples& samples) {
        addField(samples, partOf(sample, part), field, divisor);
    };
}

Collect counter(const char* field) {
    return fieldOf("counters", field);
}

// A field of `part` for each value of a label.
struct Split {
    const char* value;
    const char* field;
};

Collect split(const char* part, const char* label, std::vector<Split> fields, double divisor = 1) {
    return [=, fields = std::move(fields)](const Sample& sample, Samples& samples) {
        for (const auto& [value, field] : fields) {
            addField(samples, partOf(sample, part), field, divisor, {{label, value}});
        }
    };
}

// "other" of the first label is all others together.
void addRows(Samples& samples, const Rows& rows, const char* field,
             const std::function<void(const Json&)>& add, const char* label) {
    for (const Json& row : rows.shown()) add(row);
    if (rows.others.contains(field)) {
        samples.add(realIn(rows.others, field), {{label, "other"}});
    }
}

Collect sessionField(const char* field, double divisor = 1) {
    return [=](const Sample& sample, Samples& samples) {
        const auto add = [&](const Json& session) {
            const std::string who = bus::whoIs(session);
            const std::string number = std::to_string(numberIn(session, "number"));
            const std::string address = textIn(session, "address");
            const std::string service = textIn(session, "service");
            const std::string network = textIn(session, "network");
            samples.add(realIn(session, field) / divisor, {{"session", who},
                                                           {"number", number},
                                                           {"address", address},
                                                           {"service", service},
                                                           {"network", network}});
        };
        addRows(samples, sample.bus.daemon.sessions(), field, add, "session");
    };
}

Collect subjectField(const char* field) {
    return [=](const Sample& sample, Samples& samples) {
        const auto add = [&](const Json& row) {
            const std::string subject = textIn(row, "subject");
            const std::string service = textIn(row, "service");
            const std::string network = textIn(row, "network");
            samples.add(realIn(row, field),
                        {{"subject", subject}, {"service", service}, {"network", network}});
        };
        addRows(samples, sample.bus.daemon.subjects(), field, add, "subject");
    };
}

void collectUp(const Sample& sample, Samples& samples) {
    const Answering how = sample.bus.daemon.state(Topic::Status).how;
    if (how != Answering::NotYet) samples.add(how == Answering::Answers ? 1 : 0);
}

void collectState(const Sample& sample, Samples& samples) {
    const Answering how = sample.bus.daemon.state(Topic::Status).how;
    if (how == Answering::NotYet) return;
    for (const auto& [state, name] : kStates) samples.add(how == state ? 1 : 0, {{"state", name}});
}

void collectAges(const Sample& sample, Samples& samples) {
    for (const auto& [topic, name] : kTopicNames) {
        const auto answered = sample.bus.daemon.state(topic).answered;
        if (!answered) continue;
        samples.add(static_cast<double>(sample.bus.now - *answered) / kMillisecondsInSecond,
                    {{"about", name}});
    }
}

void collectQuestions(const Sample& sample, Samples& samples) {
    for (const auto& [topic, name] : kTopicNames) {
        samples.add(static_cast<double>(sample.bus.daemon.state(topic).questions),
                    {{"about", name}});
    }
}

void collectInfo(const Sample& sample, Samples& samples) {
    const Json& status = sample.bus.daemon.status();
    if (!hasFigures(sample, Topic::Status)) return;
    const std::string version = textIn(status, "version");
    const std::string pid = std::to_string(numberIn(status, "pid"));
    const std::string addresses = bus::addressesIn(status);
    samples.add(1, {{"version", version}, {"pid", pid}, {"address", addresses}});
}

void collectBehind(const Sample& sample, Samples& samples) {
    if (!hasFigures(sample, Topic::Sessions)) return;
    samples.add(static_cast<double>(sample.bus.daemon.behind()));
}

void collectKnown(const Sample& sample, Samples& samples) {
    if (!hasFigures(sample, Topic::Subjects)) return;
    samples.add(static_cast<double>(sample.bus.daemon.known()));
}

}  // namespace

std::vector<Metric> daemonMetrics() {
    static constexpr const char* kSession = "session number address service network";
    static constexpr const char* kSubject = "subject service network";
    return {
        {"rvd_up", Gauge, "", "1 while the daemon answers the agent, else 0", collectUp},
        {"rvd_state", Gauge, "state",
         "1 for what the daemon does: it answers, is silent (hangs, or is too old to be asked), "
         "refuses (it is of another host, see -status-for), or is lost",
         collectState},
        {"rvd_figures_age_seconds", Gauge, "about", "time since the daemon last answered",
         collectAges},
        {"rva_questions_total", Counter, "about", "questions to the daemon", collectQuestions},
        {"rvd_info", Gauge, "version pid address", "1, with what the daemon is", collectInfo},
        {"rvd_start_time_seconds", Gauge, "", "when the daemon started, since the epoch",
         fieldOf("", "started_ms", kMillisecondsInSecond)},
        {"rvd_replacements_total", Counter, "result",
         "how often the daemon was replaced while it works (done), and could not be (failed)",
         split("", "result", {{"done", "replaced"}, {"failed", "not_replaced"}})},
        {"rvd_connections", Gauge, "", "connections that are open", counter("connections_open")},
        {"rvd_max_connections", Gauge, "", "connections for which there are descriptors",
         fieldOf("", "connection_limit")},
        {"rvd_accepted_connections_total", Counter, "", "connections taken",
         counter("connections_accepted")},
        {"rvd_refused_connections_total", Counter, "cause",
         "turned away: no descriptors (descriptors), -allow or -allow-user (not_allowed)",
         split(
             "counters", "cause",
             {{"descriptors", "connections_refused"}, {"not_allowed", "connections_not_allowed"}})},
        {"rvd_closed_connections_total", Counter, "cause",
         "closed by the daemon: a peer that broke the protocol (protocol), said nothing in time "
         "(silent), or held most of a full memory (memory)",
         split("counters", "cause",
               {{"protocol", "connections_failed"},
                {"silent", "connections_timed_out"},
                {"memory", "connections_evicted"}})},
        {"rvd_sessions", Gauge, "", "connections that have announced a service and a network",
         counter("sessions_open")},
        {"rvd_sessions_behind", Gauge, "", "those of them that do not keep up", collectBehind},
        {"rvd_followers", Gauge, "", "sessions that follow the interest of their space: bridges",
         counter("followers_open")},
        {"rvd_listens", Gauge, "", "listens in force", counter("listens_open")},
        {"rvd_received_messages_total", Counter, "", "messages taken from sessions",
         counter("messages_received")},
        {"rvd_received_bytes_total", Counter, "", "bytes of those messages",
         counter("bytes_received")},
        {"rvd_rejected_messages_total", Counter, "cause",
         "of these dropped at once: not sound (unreadable), or on a subject of the system's own "
         "(reserved)",
         split("counters", "cause",
               {{"unreadable", "messages_unreadable"}, {"reserved", "messages_reserved"}})},
        {"rvd_unmatched_messages_total", Counter, "", "messages that no session listened to",
         counter("messages_unmatched")},
        {"rvd_matched_messages_total", Counter, "",
         "copies due, one for each session that listened", counter("messages_matched")},
        {"rvd_delivered_messages_total", Counter, "", "copies written to their session in full",
         counter("messages_delivered")},
        {"rvd_delivered_bytes_total", Counter, "", "bytes of those copies",
         counter("bytes_delivered")},
        {"rvd_dropped_messages_total", Counter, "cause",
         "copies lost: the queue of the session was full (queue), the memory of the daemon "
         "(memory), "
         "the session ended (ended), the daemon ended (shutdown)",
         split("counters", "cause",
               {{"queue", "dropped_queue"},
                {"memory", "dropped_memory"},
                {"ended", "dropped_ended"},
                {"shutdown", "dropped_shutdown"}})},
        {"rvd_loss_notices_total", Counter, "", "notices of losses queued for sessions",
         counter("loss_notices")},
        {"rvd_interest_snapshots_total", Counter, "",
         "begun for those who follow: once each, and again after a loss",
         counter("interest_snapshots")},
        {"rvd_inquiries_total", Counter, "", "questions that the daemon was asked about itself",
         counter("inquiries")},
        {"rvd_sent_keepalives_total", Counter, "", "keepalives sent to silent peers",
         counter("keepalives_sent")},
        {"rvd_latency_seconds", Gauge, "percentile",
         "time from reading the last byte of a message to writing that of a copy, of samples of "
         "the "
         "last 10 to 20 s",
         split("latency", "percentile",
               {{"50", "p50_ns"},
                {"90", "p90_ns"},
                {"99", "p99_ns"},
                {"99.9", "p999_ns"},
                {"100", "max_ns"}},
               kNanosecondsInSecond)},
        {"rvd_memory_bytes", Gauge, "kind", "memory held for sessions, by what it is for",
         split("memory", "kind",
               {{"messages", "messages"},
                {"listens", "listens"},
                {"connections", "connections"},
                {"incoming", "incoming"},
                {"control", "control"}})},
        {"rvd_used_memory_bytes", Gauge, "", "all of that", fieldOf("memory", "used")},
        {"rvd_max_memory_bytes", Gauge, "", "its limit, -memory", fieldOf("memory", "limit")},
        {"rvd_max_queue_bytes", Gauge, "", "the limit of one session's queue, -queue-limit",
         fieldOf("", "queue_limit")},
        {"rvd_session_queue_bytes", Gauge, kSession, "what waits for a session to read it",
         sessionField("waiting_bytes")},
        {"rvd_session_queue_messages", Gauge, kSession, "the same in messages",
         sessionField("waiting")},
        {"rvd_session_memory_bytes", Gauge, kSession, "what the daemon holds for a session",
         sessionField("memory")},
        {"rvd_session_behind_seconds", Gauge, kSession, "time since a session does not keep up; 0",
         sessionField("behind_ms", kMillisecondsInSecond)},
        {"rvd_session_published_messages_total", Counter, kSession, "messages that it has sent",
         sessionField("published")},
        {"rvd_session_delivered_messages_total", Counter, kSession, "copies that it has taken",
         sessionField("delivered")},
        {"rvd_session_dropped_messages_total", Counter, kSession, "copies that it has lost",
         sessionField("dropped")},
        {"rvd_subjects", Gauge, "", "subjects of which the daemon keeps count", collectKnown},
        {"rvd_subject_messages_per_second", Gauge, kSubject,
         "what flows on a subject, of some seconds", subjectField("rate")},
        {"rvd_subject_bytes_per_second", Gauge, kSubject, "the same in bytes",
         subjectField("byte_rate")},
    };
}

}  // namespace kvx::rva
