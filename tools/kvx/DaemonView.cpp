#include "tools/kvx/DaemonView.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <ctime>
#include <utility>

namespace kvx::tool {

namespace {

using Cause = std::pair<const char*, const char*>;
// Fields of sessions, and of the counters, with their meaning.
constexpr std::array<Cause, 4> kCauses = {{{"dropped_queue", "queue full"},
                                           {"dropped_memory", "daemon memory full"},
                                           {"dropped_ended", "session ended"},
                                           {"dropped_shutdown", "daemon ended"}}};

std::string shapesText(const Json& subject) {
    std::string text;
    for (const auto& shape : rowsIn(subject, "shape")) {
        std::string fields;
        for (const auto& field : rowsIn(shape, "fields")) {
            fields +=
                (fields.empty() ? "" : " ") + (field.is_string() ? field.get<std::string>() : "");
        }
        text += fmt::format("{}{} x {{{}}}", text.empty() ? "" : "; ",
                            countText(numberIn(shape, "messages")), fields);
    }
    if (const auto others = numberIn(subject, "other_shapes")) {
        text += fmt::format("; {} of others", countText(others));
    }
    return text;
}

std::string timeText(std::uint64_t milliseconds) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}",
                       fmt::gmtime(static_cast<std::time_t>(milliseconds / 1'000)));
}

std::string latencyLine(const Json& latency) {
    if (numberIn(latency, "copies") == 0) return "latency      nothing was handed over lately";
    return fmt::format(
        "latency      p50 {}, p99 {}, max {} (of {} copies of the last seconds)",
        delayText(numberIn(latency, "p50_ns")), delayText(numberIn(latency, "p99_ns")),
        delayText(numberIn(latency, "max_ns")), countText(numberIn(latency, "copies")));
}

}  // namespace

std::string delayText(std::uint64_t nanoseconds) {
    constexpr std::array<const char*, 3> kUnits = {"us", "ms", "s"};
    if (nanoseconds < 1'000) return fmt::format("{} ns", nanoseconds);
    double number = static_cast<double>(nanoseconds) / 1'000;
    std::size_t unit = 0;
    for (; number >= 999.5 && unit + 1 < kUnits.size(); ++unit) number /= 1'000;
    return fmt::format("{:.1f} {}", number, kUnits[unit]);
}

std::vector<std::string> statusLines(const Json& status) {
    const Json& counters = objectIn(status, "counters");
    const Json& rates = objectIn(status, "rates");
    const Json& memory = objectIn(status, "memory");
    std::string held;
    for (const char* kind : {"messages", "listens", "connections", "incoming", "control"}) {
        const auto bytes = numberIn(memory, kind);
        if (bytes != 0) {
            held += fmt::format("{}{} {}", held.empty() ? "" : ", ", kind,
                                bytesText(static_cast<double>(bytes)));
        }
    }
    Json losses = Json::object();
    for (const auto& [field, meaning] : kCauses) losses[field] = numberIn(counters, field);
    std::vector<std::string> lines = {
        fmt::format("daemon       rvd {}, process {}, up {} (since {})", textIn(status, "version"),
                    numberIn(status, "pid"), spanText(numberIn(status, "age_ms")),
                    timeText(numberIn(status, "started_ms"))),
        fmt::format("listening    {}", bus::addressesIn(status)),
        fmt::format("sessions     {} on {} connections (of {} possible), {} listens",
                    countText(numberIn(counters, "sessions_open")),
                    countText(numberIn(counters, "connections_open")),
                    countText(numberIn(status, "connection_limit")),
                    countText(numberIn(counters, "listens_open"))),
        fmt::format("in           {} messages/s, {}/s; {} messages, {} in all",
                    countText(numberIn(rates, "received")),
                    bytesText(realIn(rates, "received_bytes")),
                    countText(numberIn(counters, "messages_received")),
                    bytesText(realIn(counters, "bytes_received"))),
        fmt::format("out          {} messages/s, {}/s; {} messages, {} in all",
                    countText(numberIn(rates, "delivered")),
                    bytesText(realIn(rates, "delivered_bytes")),
                    countText(numberIn(counters, "messages_delivered")),
                    bytesText(realIn(counters, "bytes_delivered"))),
        fmt::format("dropped      {} messages/s; in all {}", countText(numberIn(rates, "dropped")),
                    lossText(losses)),
        latencyLine(objectIn(status, "latency")),
        fmt::format("memory       {} of {}: {}", bytesText(realIn(memory, "used")),
                    bytesText(realIn(memory, "limit")), held),
        fmt::format("limits       {} may wait for a session, {} listens of one",
                    bytesText(realIn(status, "queue_limit")),
                    countText(numberIn(status, "listen_limit"))),
    };
    if (const std::string file = textIn(status, "recorder_file"); !file.empty()) {
        lines.push_back(fmt::format("recorder     {} messages since the start, the last ones in {}",
                                    countText(numberIn(status, "recorded")), file));
    }
    return lines;
}

std::string spaceText(const Json& row) {
    const std::string network = textIn(row, "network");
    return textIn(row, "service") + (network.empty() ? "" : ";" + network);
}

std::string lossText(const Json& session) {
    std::string text;
    for (const auto& [field, meaning] : kCauses) {
        const auto messages = numberIn(session, field);
        if (messages == 0) continue;
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", countText(messages), meaning);
    }
    return text.empty() ? "-" : text;
}

namespace {

std::string stateText(const Json& session) {
    if (session.contains("behind_ms")) {
        return "behind for " + spanText(numberIn(session, "behind_ms"));
    }
    if (textIn(session, "service").empty()) return "not announced";
    if (numberIn(session, "waiting") != 0) {
        return "messages wait for " + spanText(numberIn(session, "waiting_ms"));
    }
    return session.contains("follows") ? "follows" : "";
}

}  // namespace

Table sessionsTable(const Json& sessions) {
    Table table({">NUMBER", "SESSION", "ADDRESS", "SPACE", ">AGE", ">LISTENS", ">IN/S", ">OUT/S",
                 ">WAITING", ">IN QUEUE", "DROPPED", "STATE"});
    for (const auto& session : sessions) {
        table.add({std::to_string(numberIn(session, "number")), whoIs(session),
                   textIn(session, "address"), spaceText(session),
                   spanText(numberIn(session, "age_ms")), countText(numberIn(session, "listens")),
                   countText(numberIn(session, "published_rate")),
                   countText(numberIn(session, "delivered_rate")),
                   countText(numberIn(session, "waiting")),
                   bytesText(realIn(session, "waiting_bytes")), lossText(session),
                   stateText(session)});
    }
    return table;
}

Table subjectsTable(const Json& subjects, bool withShapes) {
    std::vector<std::string> headings = {"SUBJECT",   "SPACE",   ">MESSAGES/S", ">BYTES/S",
                                         ">MESSAGES", ">MISSED", ">SENDERS",    ">LISTENERS"};
    if (withShapes) headings.emplace_back("SHAPES");
    Table table(std::move(headings));
    for (const auto& subject : subjects) {
        std::vector<std::string> cells = {
            textIn(subject, "subject"),
            spaceText(subject),
            rateText(realIn(subject, "rate")),
            bytesText(realIn(subject, "byte_rate")),
            countText(numberIn(subject, "messages")),
            countText(numberIn(subject, "missed")),
            countText(numberIn(subject, "senders")) + (subject.contains("more_senders") ? "+" : ""),
            countText(numberIn(subject, "listeners"))};
        if (withShapes) cells.push_back(shapesText(subject));
        table.add(std::move(cells));
    }
    return table;
}

}  // namespace kvx::tool
