// kvx snoop: prints the rows that a service publishes as they change. The bus thread only copies
// messages into the pool; the pool's threads decode them and print in order.

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tools/bus/Client.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/bus/Ticker.h"
#include "tools/kvx/Changes.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/OrderedPool.h"

namespace kvx::tool {

namespace {

constexpr unsigned kMostThreads = 4;
constexpr unsigned long kLookMs = 20;

// Prints up to `count` lines, or until standard output fails.
class LinePrinter {
  public:
    explicit LinePrinter(std::uint64_t count) : count_(count) {}

    void print(const OrderedPool::Lines& lines) {
        for (const std::string& line : lines) {
            if (isOver_) return;
            bus::printLine(line);
            if (++printed_ == count_) isOver_ = true;
        }
        if (!bus::flushOutput()) isOver_ = true;
    }

    /// Any thread.
    bool isOver() const { return isOver_; }

  private:
    const std::uint64_t count_;
    std::uint64_t printed_ = 0;
    std::atomic<bool> isOver_{false};
};

int threads() {
    return static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 2U, kMostThreads));
}

int follow(bus::Client& client, const SnoopOptions& options, const char* subject) {
    LinePrinter printer(options.count);
    const ChangeFormat format{options.table, options.connection.json};
    OrderedPool pool(
        threads(),
        [&](CVekUpdWork& update, std::int64_t cameAtMs) {
            return changesIn(*update.RUWDatum(), cameAtMs, format);
        },
        [&](const OrderedPool::Lines& lines) { printer.print(lines); });
    pool.start();
    CVekSnoop snoop(&pool);
    if (client.net().RRNAddService(subject, &snoop) != kOk) {
        bus::complain(fmt::format("cannot listen on {}", subject));
        return kFailure;
    }
    bus::Ticker look(client.net(), kLookMs, bus::Ticker::Repeat::Forever, [&] {
        if (printer.isOver()) client.leave(bus::outputHasFailed() ? kFailure : kSuccess);
    });
    if (options.count != 0) client.failOnLoss();
    return client.runUntilSignal([&] {
        if (!talks(options.connection)) return;
        bus::complain(fmt::format("following {} on {}.{}; Ctrl-C ends it", options.service, subject,
                                  options.connection.domainOrDefault()));
    });
}

}  // namespace

int snoop(const SnoopOptions& options) {
    const auto service = publisherNamed(options.service);
    if (!service) return kUsage;
    bus::Client client(options.connection);
    return client.isUp() ? follow(client, options, service->notifySubject().c_str()) : kFailure;
}

}  // namespace kvx::tool
