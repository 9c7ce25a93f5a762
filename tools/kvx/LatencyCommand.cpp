// kvx latency: has the daemon measure how long messages on a subject are in it, and shows what it
// has found: in place once a second on a terminal, else at the end. The daemon measures as long as
// it is asked again within ten seconds.

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>

#include "platform/File.h"
#include "platform/Text.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/DaemonView.h"
#include "tools/kvx/Fields.h"

namespace kvx::tool {

namespace {

constexpr unsigned long kLookMs = 1'000;
constexpr double kBarWidth = 40;  // characters of the longest

Table histogramOf(const Json& answer) {
    Table table({">FROM", ">BELOW", ">COPIES", ""});
    std::uint64_t most = 1;
    const Json& buckets = rowsIn(answer, "bucket");
    for (const auto& bucket : buckets) most = std::max(most, numberIn(bucket, "copies"));
    for (const auto& bucket : buckets) {
        const double share = realIn(bucket, "copies") / static_cast<double>(most);
        table.add({delayText(numberIn(bucket, "from_ns")), delayText(numberIn(bucket, "below_ns")),
                   countText(numberIn(bucket, "copies")),
                   std::string(static_cast<std::size_t>(std::lround(share * kBarWidth)), '#')});
    }
    return table;
}

class Latency {
  public:
    Latency(bus::Client& client, const LatencyOptions& options)
        : client_(client),
          options_(options),
          isLive_(!options.connection.json && platform::isTerminal(stdout)),
          question_(client.net(), bus::kLatencySubject,
                    [this](const Json& answer, const std::string& error) { take(answer, error); }) {
        asked_.append("subject", options.subject.c_str());
    }

    void start() {
        ask();
        look_.emplace(client_.net(), kLookMs, bus::Ticker::Repeat::Forever, [this] { ask(); });
        if (options_.seconds == 0) return;
        end_.emplace(client_.net(), static_cast<unsigned long>(options_.seconds * 1'000),
                     bus::Ticker::Repeat::Once, [this] {
                         isLast_ = true;
                         look_.reset();
                         question_.ask(asked_, options_.timeoutSeconds);
                     });
    }
    // Returns the exit status.
    int end(int status) {
        if (!error_.empty()) bus::complain(error_);
        if (answer_.is_null()) return status;
        if (options_.connection.json) {
            answer_["subject"] = options_.subject;
            answer_["seconds"] = seconds();
            printRows(Json::array({answer_}));
        } else if (!isLive_) {
            show();
        }
        return status;
    }

  private:
    // An answer that is late is waited for.
    void ask() {
        if (isWaiting_) return;
        isWaiting_ = true;
        question_.ask(asked_, options_.timeoutSeconds);
    }
    void take(const Json& answer, const std::string& error) {
        isWaiting_ = false;
        error_ = error;
        if (!error.empty()) return client_.leave(kFailure);
        const bool isNew = numberIn(answer, "measured_ns") < numberIn(answer_, "measured_ns");
        if (isNew && !isLive_)
            bus::complain("the daemon measures anew: it was replaced, or not asked for 10 seconds");
        answer_ = answer;
        if (isLive_) {
            bus::print(bus::kClearScreen);
            show();
            bus::flushOutput();
        }
        if (isLast_ || bus::outputHasFailed()) client_.leave(kSuccess);
    }
    [[nodiscard]] double seconds() const { return realIn(answer_, "measured_ns") / 1e9; }
    void show() const {
        const auto copies = numberIn(answer_, "copies");
        bus::printLine(fmt::format("{}: {} copies in {:.1f} s, from receipt to hand-over",
                                   printable(options_.subject), countText(copies), seconds()));
        if (copies == 0) return;
        std::string line;
        for (const auto& [name, field] :
             {std::pair("min", "min_ns"), std::pair("p50", "p50_ns"), std::pair("p90", "p90_ns"),
              std::pair("p99", "p99_ns"), std::pair("p99.9", "p999_ns"),
              std::pair("max", "max_ns")}) {
            line += fmt::format("{}{} {}", line.empty() ? "" : "  ", name,
                                delayText(numberIn(answer_, field)));
        }
        bus::printLine(line);
        histogramOf(answer_).print();
    }

    bus::Client& client_;
    const LatencyOptions& options_;
    const bool isLive_;
    RvMsg asked_;
    bus::DaemonQuestion question_;
    bool isWaiting_ = false;
    bool isLast_ = false;
    Json answer_;
    std::string error_;
    std::optional<bus::Ticker> look_;
    std::optional<bus::Ticker> end_;
};

}  // namespace

int latency(const LatencyOptions& options) {
    if (!isSubject(options.subject)) {
        bus::complain(fmt::format("'{}' is no subject", printable(options.subject)));
        return kUsage;
    }
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    client.leaveWithoutDaemon();
    Latency program(client, options);
    return program.end(client.runUntilSignal([&program] { program.start(); }));
}

}  // namespace kvx::tool
