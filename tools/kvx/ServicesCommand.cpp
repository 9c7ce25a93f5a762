// kvx services: lists the running services, from the beats that every engine sends, and those that
// answer queries.
//
// A listing waits a little longer than one beat interval, since a service that has just beaten is
// silent for ten seconds. Watching only listens: repeated queries would cost every service more
// than they show.

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/File.h"
#include "tools/beats/BeatListener.h"
#include "tools/beats/BeatTable.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/DatumJson.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/AnswerProbe.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/ServicesView.h"

namespace kvx::tool {

namespace {

constexpr unsigned long kTickMs = 1000;
constexpr const char* kNoWrap = "\033[?7l";
constexpr const char* kWrap = "\033[?7h";

using Repeat = bus::Ticker::Repeat;

void printLines(const std::vector<std::string>& lines) {
    for (const auto& line : lines) bus::printLine(line);
}

Colour colourOfOutput() {
    const char* const noColour = std::getenv("NO_COLOR");
    const bool refused = noColour != nullptr && *noColour != '\0';
    return refused || !platform::isTerminal(stdout) ? Colour::Never : Colour::Missing;
}

// The beats received so far, and the two ways of showing them.
class Services {
  public:
    Services(bus::Client& client, const ServicesOptions& options)
        : client_(client), options_(options) {}

    [[nodiscard]] bool listen() { return listener_.listen(client_.net()); }

    int lookOnce(unsigned long waitMs) {
        AnswerProbe probe(client_.net());
        std::unique_ptr<bus::Ticker> end;
        std::optional<bus::Progress> progress;
        const Milliseconds until = platform::monotonicMs() + static_cast<Milliseconds>(waitMs);
        client_.leaveWithoutDaemon();
        const int status = client_.runUntilSignal([&] {
            probe.askAll();
            asked_ = &probe;
            end = ticker(waitMs, Repeat::Once, [this] { client_.leave(kSuccess); });
            progress.emplace(client_.net(), [this, until] { return progressText(until); });
        });
        progress.reset();
        asked_ = nullptr;
        print(probe.answers());
        return status;
    }

    int watch() {
        std::unique_ptr<bus::Ticker> refresh;
        const bool redraws = platform::isTerminal(stdout) && !options_.connection.json;
        client_.onDaemonChange([this](bool isThere) {
            if (isThere) table_.resume(platform::monotonicMs());
        });
        return client_.runUntilSignal([&] {
            if (redraws) redraw();
            refresh = ticker(kTickMs, Repeat::Forever, [this, redraws] {
                table_.forgetSilent(platform::monotonicMs());
                redraws ? redraw() : printChanges();
                if (!bus::flushOutput()) client_.leave(kFailure);
            });
        });
    }

  private:
    using Milliseconds = platform::Milliseconds;

    std::unique_ptr<bus::Ticker> ticker(unsigned long intervalMs, Repeat repeat,
                                        std::function<void()> tick) {
        return std::make_unique<bus::Ticker>(client_.net(), intervalMs, repeat, std::move(tick));
    }

    std::string progressText(Milliseconds until) const {
        const Milliseconds left = until - platform::monotonicMs();
        return fmt::format("listening for {} s more, {} heard", (left + kHalfSecond) / 1000,
                           table_.size());
    }

    void print(const std::vector<Answer>& answers) {
        const Milliseconds now = platform::monotonicMs();
        const auto services = table_.services(now);
        if (options_.connection.json) {
            for (const auto& service : services) {
                bus::printLine(bus::printableJson(beats::serviceAsJson(service, now)));
            }
            for (const auto& answer : answers) bus::printLine(answerAsJson(answer));
        } else {
            printLines(serviceLines(services, now, colour_));
            if (!answers.empty()) bus::printLine("");
            printLines(answerLines(answers));
        }
        if (services.empty()) bus::complain("no service was heard");
        for (const auto& answer : answers) {
            if (answer.answerers.size() > 1) bus::complain(warningOf(answer));
        }
    }

    void redraw() {
        const Milliseconds now = platform::monotonicMs();
        const auto lines = serviceLines(table_.services(now), now, colour_);
        bus::print(std::string(bus::kClearScreen) + kNoWrap);
        printLines(fittingLines(lines, platform::terminalHeight(stdout)));
        bus::print(kWrap);
        if (table_.size() == 0) bus::printLine("(nothing yet; services beat every 10 seconds)");
        bus::flushOutput();
    }

    void printChanges() {
        const Milliseconds now = platform::monotonicMs();
        const auto services = table_.services(now);
        const auto changed = changes_.since(services, now);
        if (changed.empty()) return;
        const auto lines = serviceLines(services, now, colour_);
        if (!options_.connection.json && !headed_) bus::printLine(lines.front());
        headed_ = true;
        for (const std::size_t i : changed) {
            bus::printLine(options_.connection.json
                               ? bus::printableJson(beats::serviceAsJson(services[i], now))
                               : lines[i + 1]);
        }
    }

    // A name that the system's table lacks is known only from its beats.
    void hear(std::span<const unsigned char> packet) {
        if (!table_.hear(packet, platform::monotonicMs()) || asked_ == nullptr) return;
        const auto beat = beats::readBeat(packet);
        if (beat && beat->domain == options_.connection.domainOrDefault()) {
            asked_->ask(beat->service);
        }
    }

    static constexpr Milliseconds kHalfSecond = 500;

    bus::Client& client_;
    const ServicesOptions& options_;
    const Colour colour_ = colourOfOutput();
    beats::BeatTable table_;
    beats::BeatListener listener_{[this](auto packet) { hear(packet); },
                                  [this](const auto& beat) {
                                      table_.hear(beat, platform::monotonicMs(),
                                                  platform::wallMilliseconds());
                                  }};
    AnswerProbe* asked_ = nullptr;  // while a look lasts
    ServiceChanges changes_;
    bool headed_ = false;
};

}  // namespace

int services(const ServicesOptions& options) {
    const auto waitMs = static_cast<unsigned long>(options.waitSeconds * 1000);
    bus::Client client(options.connection, waitMs);
    if (!client.isUp()) return kFailure;
    Services services(client, options);
    if (!services.listen()) {
        bus::complain("cannot listen for beats");
        return kFailure;
    }
    return options.watch ? services.watch() : services.lookOnce(waitMs);
}

}  // namespace kvx::tool
