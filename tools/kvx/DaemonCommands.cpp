// kvx status, sessions and trace: what the daemon answers, as tables or JSON.

#include <fmt/format.h>

#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/Text.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/DaemonView.h"
#include "tools/kvx/Fields.h"

namespace kvx::tool {

namespace {

RvMsg optionsOf(const AskedOfDaemon& asked) {
    RvMsg options;
    if (!asked.subject.empty()) options.append("subject", asked.subject.c_str());
    if (asked.limit != 0) options.append("limit", static_cast<unsigned int>(asked.limit));
    if (asked.shapes) options.append("fields", 1);
    return options;
}

class Inquirer {
  public:
    using Show = std::function<int(const std::vector<Json>&)>;
    Inquirer(bus::Client& client, const DaemonOptions& options,
             const std::vector<AskedOfDaemon>& questions, const Show& show)
        : client_(client), options_(options), questions_(questions), show_(show) {}

    void askNext() {
        const AskedOfDaemon& asked = questions_[answers_.size()];
        question_ = std::make_unique<bus::DaemonQuestion>(
            client_.net(), asked.about,
            [this](const Json& answer, const std::string& error) { take(answer, error); });
        question_->ask(optionsOf(asked), options_.timeoutSeconds);
    }

  private:
    void take(const Json& answer, const std::string& error) {
        if (!error.empty()) {
            bus::complain(error);
            return client_.leave(kFailure);
        }
        answers_.push_back(answer);
        if (answers_.size() == questions_.size()) return client_.leave(show_(answers_));
        // Not within the callback of the question that it replaces.
        next_.emplace(client_.net(), 1, bus::Ticker::Repeat::Once, [this] { askNext(); });
    }

    bus::Client& client_;
    const DaemonOptions& options_;
    const std::vector<AskedOfDaemon>& questions_;
    const Show& show_;
    std::vector<Json> answers_;
    std::unique_ptr<bus::DaemonQuestion> question_;
    std::optional<bus::Ticker> next_;
};

std::string sessionsLine(const Json& sessions) {
    std::uint64_t behind = 0;
    for (const auto& session : sessions) behind += session.contains("behind_ms") ? 1 : 0;
    const std::string suffix =
        behind == 0 ? "" : fmt::format(", {} behind: \"kvx why-slow\" tells more", behind);
    return fmt::format("{} session{}{}", sessions.size(), sessions.size() == 1 ? "" : "s", suffix);
}

}  // namespace

int askDaemon(const DaemonOptions& options, const std::vector<AskedOfDaemon>& questions,
              const std::function<int(const std::vector<Json>&)>& show) {
    const bool isTrace = questions.front().about == std::string_view(bus::kTraceSubject);
    if ((isTrace || !options.subject.empty()) && !isSubject(options.subject)) {
        bus::complain(fmt::format("'{}' is no subject", options.subject));
        return kUsage;
    }
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    client.leaveWithoutDaemon();
    Inquirer inquirer(client, options, questions, show);
    return client.run([&inquirer] { inquirer.askNext(); });
}

void printRows(const Json& rows) {
    for (const auto& row : rows) {
        bus::printLine(
            bus::printableJson(row.dump(-1, ' ', false, Json::error_handler_t::replace)));
    }
}

int status(const DaemonOptions& options) {
    return askDaemon(options, {{bus::kStatusSubject}}, [&options](const auto& answers) {
        if (options.connection.json) {
            printRows(Json::array({answers[0]}));
        } else {
            for (const auto& line : statusLines(answers[0])) bus::printLine(printable(line));
        }
        return kSuccess;
    });
}

int sessions(const DaemonOptions& options) {
    return askDaemon(options, {{bus::kSessionsSubject}}, [&options](const auto& answers) {
        const Json& rows = rowsIn(answers[0], "session");
        if (options.connection.json) {
            printRows(rows);
        } else {
            sessionsTable(rows).print();
            bus::printLine(sessionsLine(rows));
        }
        return kSuccess;
    });
}

int trace(const DaemonOptions& options) {
    const std::vector<AskedOfDaemon> questions = {{bus::kTraceSubject, options.subject},
                                                  {bus::kSessionsSubject}};
    return askDaemon(options, questions, [&options](const auto& answers) {
        std::map<std::uint64_t, Json> sessions;
        for (const auto& session : rowsIn(answers[1], "session")) {
            sessions[numberIn(session, "number")] = session;
        }
        Json matches = rowsIn(answers[0], "match");
        Table table({">NUMBER", "SESSION", "ADDRESS", "LISTEN", ">TIMES"});
        for (auto& match : matches) {
            const Json& session = sessions[numberIn(match, "session")];
            match["name"] = textIn(session, "name");
            match["address"] = textIn(session, "address");
            table.add({std::to_string(numberIn(match, "session")), whoIs(session),
                       textIn(session, "address"), textIn(match, "listen"),
                       countText(numberIn(match, "count"))});
        }
        if (options.connection.json) {
            printRows(matches);
        } else if (matches.empty()) {
            bus::printLine(fmt::format("nobody would get a message on {}", options.subject));
        } else {
            table.print();
            if (answers[0].contains("more")) bus::printLine("and more");
        }
        return kSuccess;
    });
}

}  // namespace kvx::tool
