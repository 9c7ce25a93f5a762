// kvx dump and kvx replay: what a recording has, as lines, or sent again.

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "platform/Text.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/DatumJson.h"
#include "tools/bus/MessageJson.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/Flush.h"
#include "tools/kvx/Recording.h"
#include "tools/kvx/Window.h"

namespace kvx::tool {

namespace {

using bus::Json;
using Clock = std::chrono::steady_clock;
using Nanoseconds = std::chrono::nanoseconds;

constexpr std::uint64_t kPerSecond = 1'000'000'000;

std::string timeText(std::uint64_t nanoseconds) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z",
                       fmt::gmtime(static_cast<std::time_t>(nanoseconds / kPerSecond)),
                       nanoseconds % kPerSecond / 1'000);
}

void printText(const recording::Entry& entry) {
    std::string reply = "-";
    std::string content =
        fmt::format("[the first {} of {} bytes]", entry.message.size(), entry.messageSize);
    if (entry.message.size() == entry.messageSize) content = "[not a message]";
    withContent(entry, [&](const char* to, const RvDatum& datum) {
        if (to != nullptr) reply = printable(to);
        content = bus::datumText(datum);
    });
    bus::printLine(fmt::format("{} #{} {} {} {} {}", timeText(entry.time), entry.session,
                               printable(spaceOf(entry)), printable(entry.subject.text()), reply,
                               content));
}

Json jsonOf(const recording::Entry& entry) {
    Json object;
    object["time"] = timeText(entry.time);
    object["session"] = entry.session;
    object["service"] = entry.service;
    object["network"] = entry.network;
    object["bytes"] = entry.messageSize;
    const std::string subject = entry.subject.text();
    const bool isWhole = withContent(entry, [&](const char* reply, const RvDatum& datum) {
        object.update(bus::messageJson(subject.c_str(), reply, datum));
    });
    if (isWhole) return object;
    object["subject"] = subject;
    object["kept"] = entry.message.size();
    return object;
}

// Sends each message when its time has come, from the loop.
class Replay {
  public:
    Replay(bus::Client& client, Recording& recording, const RecordingOptions& options)
        : client_(client), recording_(recording), options_(options), next_(recording.next()) {}

    [[nodiscard]] bool hasMessage() const { return next_.has_value(); }

    void start() {
        progress_.emplace(client_.net(), [this] { return fmt::format("{} messages sent", sent_); });
        begin_ = Clock::now();
        if (next_) lastTime_ = next_->time;
        sendDue();
    }

    // Returns the exit status: all that was selected has been sent, or not.
    int end(int status) {
        ticker_.reset();
        progress_.reset();
        const double seconds = std::chrono::duration<double>(Clock::now() - begin_).count();
        if (options_.connection.json) {
            bus::printLine(fmt::format(R"({{"sent":{},"cut":{},"refused":{},"seconds":{:.3f}}})",
                                       sent_, cut_, refused_, seconds));
        } else {
            bus::printLine(fmt::format("{} messages sent in {:.3f} s", sent_, seconds));
        }
        if (cut_ != 0) bus::complain(fmt::format("{} are not whole messages, and left out", cut_));
        if (refused_ != 0) bus::complain(fmt::format("{} cannot be sent by a session", refused_));
        if (next_) bus::complain("it is not at its end");
        return cut_ + refused_ != 0 || next_ ? kFailure : status;
    }

  private:
    static constexpr double kLongestMs = 3'600'000;  // between two looks at the clock

    // Times of a recording go back a little where several have sent, whose messages are read before
    // they are routed; and far where the clock was set.
    [[nodiscard]] double millisecondsLeft() {
        if (options_.speed == 0) return 0;
        if (next_->time > lastTime_) {
            dueMs_ += static_cast<double>(next_->time - lastTime_) / 1e6 / options_.speed;
            lastTime_ = next_->time;
        } else if (lastTime_ - next_->time > kPerSecond) {
            lastTime_ = next_->time;
        }
        return dueMs_ - std::chrono::duration<double, std::milli>(Clock::now() - begin_).count();
    }

    void sendDue() {
        for (std::uint64_t now = 1; next_; ++now) {
            if (const double left = millisecondsLeft(); left >= 1) return wait(left);
            send(*next_);
            const bool isMuch = now >= Window(next_->messageSize).messages();
            next_ = recording_.next();
            if (isMuch) return wait(0);
        }
        client_.leave(flush(client_) ? kSuccess : kFailure);
    }

    // Between two messages signals and the daemon are heard.
    void wait(double milliseconds) {
        if (!flush(client_)) return client_.leave(kFailure);
        const double shown = std::clamp(milliseconds, 1.0, kLongestMs);
        before_ = std::move(ticker_);
        ticker_ = std::make_unique<bus::Ticker>(client_.net(), static_cast<unsigned long>(shown),
                                                bus::Ticker::Repeat::Once, [this] { sendDue(); });
    }

    void send(const recording::Entry& entry) {
        const std::string subject = entry.subject.text();
        const bool isWhole = withContent(entry, [&](const char* reply, const RvDatum& datum) {
            const std::unique_ptr<RvSender> sender(
                client_.session().newSender(subject.c_str(), reply));
            const bool isSent = sender && sender->send(datum) == RvStatus(0);
            ++(isSent ? sent_ : refused_);
        });
        if (!isWhole) ++cut_;
    }

    bus::Client& client_;
    Recording& recording_;
    const RecordingOptions& options_;
    std::optional<recording::Entry> next_;
    Clock::time_point begin_;
    std::uint64_t lastTime_ = 0;  // of a message
    double dueMs_ = 0;            // since the begin
    std::uint64_t sent_ = 0;
    std::uint64_t cut_ = 0;
    std::uint64_t refused_ = 0;
    std::optional<bus::Progress> progress_;
    std::unique_ptr<bus::Ticker> ticker_;
    std::unique_ptr<bus::Ticker> before_;  // it may be the one that calls
};

}  // namespace

int dump(const RecordingOptions& options) {
    Recording recording(options.file, options);
    if (recording.status() != kSuccess) return recording.status();
    std::uint64_t messages = 0;
    for (; const auto entry = recording.next(); ++messages) {
        options.connection.json ? printRows(Json::array({jsonOf(*entry)})) : printText(*entry);
        if (bus::outputHasFailed()) return kFailure;
    }
    return messages != 0 ? kSuccess : recording.complainEmpty();
}

int replay(const RecordingOptions& options) {
    Recording recording(options.file, options);
    if (recording.status() != kSuccess) return recording.status();
    bus::Client client(options.connection);
    if (!client.isUp()) return kFailure;
    client.leaveWithoutDaemon();
    Replay program(client, recording, options);
    if (!program.hasMessage()) return recording.complainEmpty();
    return program.end(client.runUntilSignal([&program] { program.start(); }));
}

}  // namespace kvx::tool
