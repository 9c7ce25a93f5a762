// kvx query: send the query, collect the packets, decode and print.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "kvx/ServiceName.h"
#include "platform/File.h"
#include "platform/Memory.h"
#include "platform/Text.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/AnswerDecoder.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Query.h"
#include "tools/kvx/Rows.h"

namespace kvx::tool {

namespace {

using Clock = std::chrono::steady_clock;

std::string bytesText(std::uint64_t bytes) {
    if (bytes < 10'000) return fmt::format("{} bytes", bytes);
    if (bytes < 10'000'000) return fmt::format("{:.1f} kB", static_cast<double>(bytes) / 1e3);
    return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
}

std::string plural(std::uint64_t count, const char* word) {
    return fmt::format("{} {}{}", count, word, count == 1 ? "" : "s");
}

// The summary line of an answer.
std::string summary(const Rows& rows, const Query::Totals& totals, double seconds) {
    std::string text = plural(rows.size(), "row") + " in " + plural(totals.packets, "packet") +
                       ", " + bytesText(totals.plainBytes);
    if (totals.sentBytes != totals.plainBytes) {
        text += fmt::format(" sent as {}", bytesText(totals.sentBytes));
    }
    return text + fmt::format(", {:.3f} s", seconds);
}

std::string statusText(EVekStoreErrorStatus status) {
    const kvx::Text text(CVekTransport::RTPrintError(status, ""));
    std::string words = text ? text.get() : "";
    // The text is between "( " and " )", with a leading blank.
    if (words.size() > 5) words = words.substr(3, words.size() - 5);
    return words;
}

const char* textField(const CVekBaseRecord& record, const char* name) {
    const CVekAtom* value = record.RRGetValue(name);
    return value != nullptr && value->RAType() == VEK_TYPE_STRING ? value->RAString() : nullptr;
}

long long integerField(const CVekBaseRecord& record, const char* name) {
    const CVekAtom* value = record.RRGetValue(name);
    const bool integer =
        value != nullptr && (value->RAType() == VEK_TYPE_INT || value->RAType() == VEK_TYPE_INT64);
    return integer ? value->RAInt64() : 0;
}

// Shows the line of the query with `position` (1-based), or a part of a long line, and a mark below
// it.
void pointAt(const std::string& text, long long position) {
    constexpr std::size_t kMostAround = 60;  // bytes before and after the place
    const auto place = static_cast<std::size_t>(position) - 1;
    if (position < 1 || place > text.size()) return;
    const auto before = place == 0 ? std::string::npos : text.rfind('\n', place - 1);
    std::size_t begin = before == std::string::npos ? 0 : before + 1;
    begin = characterBegin(text, std::max(begin, place - std::min(place, kMostAround)));
    const std::size_t end =
        characterBegin(text, std::min({text.find('\n', place), text.size(), place + kMostAround}));
    bus::note(fmt::format("    {}\n    {}^\n", printable(text.substr(begin, end - begin)),
                          std::string(displayWidth(text.substr(begin, place - begin)), ' ')));
}

int showRefusal(const QueryOptions& options, const Rows& rows, EVekStoreErrorStatus status) {
    const char* reason = rows.size() == 1 ? textField(rows.at(0), "error") : nullptr;
    if (reason == nullptr) {
        bus::complain(fmt::format("{}: {}", options.service, statusText(status)));
        return kFailure;
    }
    const long long position = integerField(rows.at(0), "position");
    bus::complain(fmt::format("{}: {}{}", options.service, reason,
                              position > 0 ? fmt::format(" at position {}", position) : ""));
    pointAt(options.text, position);
    return kFailure;
}

int showAnswer(const QueryOptions& options, Query& query, double seconds) {
    Rows rows(selectedColumns(options.text));
    Decoded decoded = decodeAnswer(query.transport());
    rows.add(std::move(decoded.records));
    const EVekStoreErrorStatus status = query.transport().RTError();
    if (status != STORE_COMPLETE && status != STORE_ZERO_MATCHES) {
        return showRefusal(options, rows, status);
    }
    const RowFormat format = options.connection.json ? RowFormat::Json : options.format;
    if (!options.quiet) rows.print(format, bus::print, platform::isTerminal(stdout));
    // Standard output has only the rows; the summary follows when they are written.
    if (!bus::flushOutput()) return kFailure;
    const auto tell = [&](const std::string& line) {
        format == RowFormat::Table ? bus::printLine(line) : bus::note(line + "\n");
    };
    if (status == STORE_ZERO_MATCHES) tell(statusText(status));
    tell(summary(rows, query.totals(), seconds));
    if (decoded.bad == 0) return kSuccess;
    bus::complain(plural(decoded.bad, "record") + " of the answer could not be read");
    return kFailure;
}

int showSilence(const QueryOptions& options, bus::Client& client, const Query& query) {
    if (!rv_IsConnected(client.session().handle())) {
        bus::complain(fmt::format("no answer from {} without the bus daemon at {}", options.service,
                                  client.daemon()));
    } else if (query.isMixed()) {
        bus::complain(fmt::format(
            "mixed answers from {}: two have answered, or one twice; ask again", options.service));
    } else if (query.totals().packets == 0) {
        const bool isKnown = CVekServiceToSubjectMapper::ServiceStringToEnum(
                                 options.service.c_str()) != SERV_UNKNOWN;
        bus::complain(fmt::format(
            "no answer from {} within {:g} s{}", options.service, options.timeoutSeconds,
            isKnown ? ""
                    : "; in the system's table no service is named '" + options.service + "'"));
    } else {
        bus::complain(fmt::format("the answer of {} stopped after {}", options.service,
                                  plural(query.totals().packets, "packet")));
    }
    return kFailure;
}

}  // namespace

int query(const QueryOptions& options) {
    const auto service = ServiceName::of(options.service);
    if (!service) {
        bus::complain(service.error().message());
        return kUsage;
    }
    const auto timeoutMs = static_cast<unsigned long>(options.timeoutSeconds * 1000);
    bus::Client client(options.connection, timeoutMs);
    if (!client.isUp()) return kFailure;
    Query question(client.net(), timeoutMs, [&] { client.leave(kSuccess); });
    const auto begin = Clock::now();
    std::optional<bus::Progress> progress;
    bool isAsked = false;
    client.leaveWithoutDaemon();
    client.run([&] {
        progress.emplace(client.net(), [&] {
            return fmt::format("waiting for {}, {} so far", options.service,
                               plural(question.totals().packets, "packet"));
        });
        isAsked = question.ask(service->querySubject(), options.text);
        if (!isAsked) client.leave(kFailure);
    });
    progress.reset();
    if (!isAsked) {
        bus::complain("the query could not be sent");
        return kFailure;
    }
    if (!question.isComplete()) return showSilence(options, client, question);
    const std::chrono::duration<double> spent = Clock::now() - begin;
    return showAnswer(options, question, spent.count());
}

}  // namespace kvx::tool
