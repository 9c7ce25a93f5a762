// kvx follow: prints the rows of an answer, and then every change as it happens.

#include <fmt/format.h>

#include <chrono>
#include <optional>
#include <string>

#include "kvx/Client.h"
#include "platform/Clock.h"
#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/Changes.h"
#include "tools/kvx/Commands.h"

namespace kvx::tool {

namespace {

// Prints what the follower is given, up to the number of changes that is asked for.
class FollowPrinter {
  public:
    FollowPrinter(bus::Client& client, const FollowOptions& options)
        : client_(client), options_(options) {}

    Follower follower() {
        return {
            .onRow = [this](const Record& row) { print(row); },
            .onChange = [this](const Record& change) { printChange(change); },
            .onResynchronised =
                [this](std::span<const Record> differences) {
                    bus::complain(fmt::format("resynchronised: {} difference{}", differences.size(),
                                              differences.size() == 1 ? "" : "s"));
                    for (const Record& difference : differences) printChange(difference);
                },
            .onEnd =
                [this](const Error& error) {
                    bus::complain(error.message());
                    client_.leave(kFailure);
                }};
    }

    // Shown on a terminal until something has come.
    [[nodiscard]] std::string progress() const {
        return hasPrinted_ ? "" : "waiting for " + options_.service;
    }

  private:
    void printChange(const Record& change) {
        if (options_.count != 0 && changes_ == options_.count) return;
        print(change);
        if (++changes_ == options_.count) client_.leave(kSuccess);
    }

    void print(const Record& record) {
        hasPrinted_ = true;
        bus::printLine(
            changeLine(record.base(), platform::wallMilliseconds(), options_.connection.json));
        if (!bus::flushOutput()) client_.leave(kFailure);
    }

    bus::Client& client_;
    const FollowOptions& options_;
    std::uint64_t changes_ = 0;
    bool hasPrinted_ = false;
};

}  // namespace

int follow(const FollowOptions& options) {
    const auto service = publisherNamed(options.service);
    if (!service) return kUsage;
    const auto timeout =
        std::chrono::milliseconds(static_cast<long>(options.timeoutSeconds * 1000));
    bus::Client client(options.connection, static_cast<unsigned long>(timeout.count()));
    if (!client.isUp()) return kFailure;
    auto querier = kvx::Client::onThisThread(client.net(), {.timeout = timeout});
    if (!querier) {
        bus::complain(querier.error().message());
        return kFailure;
    }
    FollowPrinter printer(client, options);
    Following following;
    std::optional<bus::Progress> progress;
    return client.runUntilSignal([&] {
        if (talks(options.connection)) {
            bus::complain(fmt::format("following {}; Ctrl-C ends it", options.service));
        }
        progress.emplace(client.net(), [&] { return printer.progress(); });
        auto begun = querier->follow(*service, options.text, printer.follower());
        if (begun) {
            following = std::move(*begun);
        } else {
            bus::complain(begun.error().message());
            client.leave(kFailure);
        }
    });
}

}  // namespace kvx::tool
