// kvx top: asks the daemon once a second, and draws on the terminal or prints JSON.

#include <memory>
#include <optional>

#include "platform/File.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/TopScreen.h"

namespace kvx::tool {

namespace {

class Top {
  public:
    Top(bus::Client& client, const DaemonOptions& options)
        : client_(client),
          options_(options),
          status_(client.net(), bus::kStatusSubject, taken(&TopView::Answers::status)),
          sessions_(client.net(), bus::kSessionsSubject, taken(&TopView::Answers::sessions)),
          subjects_(client.net(), bus::kSubjectsSubject, taken(&TopView::Answers::subjects)) {}

    void start() {
        if (!options_.connection.json && !screen_.emplace().isOpen()) {
            error_ = "nothing is known of this kind of terminal: see TERM";
            return client_.leave(kFailure);
        }
        ask();
        ticker_.emplace(client_.net(), static_cast<unsigned long>(options_.interval * 1'000),
                        bus::Ticker::Repeat::Forever, [this] { ask(); });
        if (screen_) {
            keys_.emplace(client_.net(), kKeysMs, bus::Ticker::Repeat::Forever,
                          [this] { press(); });
        }
    }
    void end() {
        keys_.reset();
        ticker_.reset();
        screen_.reset();
        if (!error_.empty()) bus::complain(error_);
    }

  private:
    static constexpr unsigned long kKeysMs = 50;

    bus::DaemonQuestion::Done taken(Json TopView::Answers::*part) {
        return [this, part](const Json& answer, const std::string& error) {
            if (!error.empty()) {
                error_ = error;
                return client_.leave(kFailure);
            }
            answers_.*part = answer;
            if (++arrived_ == 3) show();
        };
    }
    void ask() {
        if (arrived_ < 3 && hasAsked_) return;  // the answers are still on their way
        hasAsked_ = true;
        arrived_ = 0;
        const RvMsg none;
        status_.ask(none, options_.timeoutSeconds);
        sessions_.ask(none, options_.timeoutSeconds);
        subjects_.ask(none, options_.timeoutSeconds);
    }
    void show() {
        if (screen_) return screen_->show(view_, answers_);
        printRows(Json::array({{{"status", answers_.status},
                                {"sessions", rowsIn(answers_.sessions, "session")},
                                {"subjects", rowsIn(answers_.subjects, "subject")}}}));
        if (options_.count != 0 && ++shown_ == options_.count) client_.leave(kSuccess);
        if (bus::outputHasFailed()) client_.leave(kFailure);
    }
    void press() {
        bool hasPressed = false;
        while (const auto key = TopScreen::key()) {
            if (view_.press(*key)) return client_.leave(kSuccess);
            hasPressed = true;
        }
        if (hasPressed) show();
    }

    bus::Client& client_;
    const DaemonOptions& options_;
    TopView view_;
    TopView::Answers answers_;
    bus::DaemonQuestion status_;
    bus::DaemonQuestion sessions_;
    bus::DaemonQuestion subjects_;
    bool hasAsked_ = false;
    int arrived_ = 0;  // answers to the last questions
    std::uint64_t shown_ = 0;
    std::string error_;
    std::optional<bus::Ticker> ticker_;
    std::optional<bus::Ticker> keys_;
    std::optional<TopScreen> screen_;
};

}  // namespace

int top(const DaemonOptions& options) {
    const bool isOnTerminal = platform::isTerminal(stdin) && platform::isTerminal(stdout);
    if (!options.connection.json && !isOnTerminal) {
        bus::complain("top draws on a terminal; with --json it prints one object an update");
        return kUsage;
    }
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    client.leaveWithoutDaemon();
    Top program(client, options);
    const int status = client.runUntilSignal([&program] { program.start(); });
    program.end();
    return status;
}

}  // namespace kvx::tool
