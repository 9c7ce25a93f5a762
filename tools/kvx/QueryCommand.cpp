// kvx query: asks with a client on the program's own session, collects the rows and prints them.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "kvx/Client.h"
#include "platform/File.h"
#include "platform/Text.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/Commands.h"
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
std::string summary(const Rows& rows, const AnswerTotals& totals, double seconds) {
    std::string text = plural(rows.size(), "row") + " in " + plural(totals.packets, "packet") +
                       ", " + bytesText(totals.plainBytes);
    if (totals.sentBytes != totals.plainBytes) {
        text += fmt::format(" sent as {}", bytesText(totals.sentBytes));
    }
    return text + fmt::format(", {:.3f} s", seconds);
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

int showRefusal(const QueryOptions& options, const QueryError& error) {
    const auto position =
        error.rows.size() == 1 ? error.rows.front().get<long long>("position").value_or(0) : 0;
    bus::complain(fmt::format("{}: {}{}", options.service, error.text,
                              position > 0 ? fmt::format(" at position {}", position) : ""));
    pointAt(options.text, position);
    return kFailure;
}

int showAnswer(const QueryOptions& options, const Rows& rows, const AnswerTotals& totals,
               double seconds) {
    const RowFormat format = options.connection.json ? RowFormat::AsJson : options.format;
    if (!options.quiet) rows.print(format, bus::print, platform::isTerminal(stdout));
    // Standard output has only the rows; the summary follows when they are written.
    if (!bus::flushOutput()) return kFailure;
    const auto tell = [&](const std::string& line) {
        format == RowFormat::AsTable ? bus::printLine(line) : bus::note(line + "\n");
    };
    if (!totals.remark.empty()) tell(totals.remark);
    tell(summary(rows, totals, seconds));
    if (totals.unreadable == 0) return kSuccess;
    bus::complain(plural(totals.unreadable, "record") + " of the answer could not be read");
    return kFailure;
}

std::string whySilent(const QueryOptions& options) {
    const bool isKnown =
        CVekServiceToSubjectMapper::ServiceStringToEnum(options.service.c_str()) != SERV_UNKNOWN;
    return fmt::format(
        "no answer from {} within {:g} s{}", options.service, options.timeoutSeconds,
        isKnown ? "" : "; in the system's table no service is named '" + options.service + "'");
}

std::string whyUnanswered(const QueryOptions& options, const QueryError& error,
                          const AnswerTotals& totals, const std::string& daemon) {
    switch (error.code) {
        case Errc::Lost:
            return fmt::format("no answer from {} without the bus daemon at {}", options.service,
                               daemon);
        case Errc::MixedAnswers:
            return fmt::format("mixed answers from {}: two have answered, or one twice; ask again",
                               options.service);
        case Errc::TimedOut:
            return whySilent(options);
        case Errc::Partial:
            return fmt::format("the answer of {} stopped after {}: {}", options.service,
                               plural(totals.packets, "packet"), error.text);
        default:
            return "the query could not be sent: " + error.text;
    }
}

// Asks, and shows the answer.
int ask(const QueryOptions& options, bus::Client& bus, Client& client, const ServiceName& service) {
    const auto begin = Clock::now();
    RowStream answer = client.stream(service, options.text);
    std::optional<bus::Progress> progress(std::in_place, bus.net(), [&] {
        return fmt::format("waiting for {}, {} so far", options.service,
                           plural(answer.totals().packets, "packet"));
    });
    QueryResult all = answer.rest();
    progress.reset();
    const std::chrono::duration<double> spent = Clock::now() - begin;
    const AnswerTotals totals = answer.totals();
    if (!all && all.error().code == Errc::Refused) return showRefusal(options, all.error());
    if (!all && !totals.isComplete) {
        bus::complain(whyUnanswered(options, all.error(), totals, bus.daemon()));
        return kFailure;
    }
    Rows rows(selectedColumns(options.text));
    for (Record& record : all ? *all : all.error().rows) rows.add(std::move(record));
    return showAnswer(options, rows, totals, spent.count());
}

}  // namespace

int query(const QueryOptions& options) {
    const auto service = serviceNamed(options.service);
    if (!service) return kUsage;
    const auto timeoutMs = static_cast<unsigned long>(options.timeoutSeconds * 1000);
    bus::Client bus(options.connection, timeoutMs);
    if (!bus.isUp()) return kFailure;
    Client::Options asking;
    asking.timeout = std::chrono::milliseconds(timeoutMs);
    asking.onWarning = bus::complain;
    auto client = Client::onThisThread(bus.net(), std::move(asking));
    if (client) return ask(options, bus, *client, *service);
    bus::complain(client.error().message());
    return kFailure;
}

}  // namespace kvx::tool
