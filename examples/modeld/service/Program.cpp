// The phases of the process: fill the table, join the bus, answer, leave. The main thread is the
// engine's.

#include "examples/modeld/service/Program.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>

#include "examples/modeld/polls/Polls.h"
#include "examples/modeld/polls/SourcePoll.h"
#include "examples/modeld/service/DaemonLink.h"
#include "examples/modeld/service/Log.h"
#include "examples/modeld/service/ModelService.h"
#include "platform/File.h"
#include "platform/Memory.h"
#include "platform/Signals.h"

namespace modeld {

namespace {

constexpr int kFailure = 1;

// A progress line on a terminal, redrawn in place and erased at the end; nothing in a pipe.
class ProgressLine {
  public:
    ~ProgressLine() { draw(""); }

    void show(std::uint64_t rows, std::uint64_t all) {
        const auto now = std::chrono::steady_clock::now();
        const bool isNewPhase = isLoading_ != (all != 0);
        isLoading_ = all != 0;
        if (!isWanted_ || (now < next_ && !isNewPhase)) return;
        next_ = now + kRedraw;
        draw(all == 0 ? fmt::format("modeld: looking through the files: {} rows", rows)
                      : fmt::format("modeld: loading: {} of {} rows ({} %)", rows, all,
                                    100 * rows / all));
    }

  private:
    static constexpr std::chrono::milliseconds kRedraw{100};

    void draw(const std::string& text) const {
        if (isWanted_) std::fputs(("\r" + text + "\x1b[K").c_str(), stderr);
    }

    const bool isWanted_ = kvx::platform::isTerminal(stderr) && Log::shows(LogLevel::Info);
    bool isLoading_ = false;
    std::chrono::steady_clock::time_point next_;
};

Source sourceOf(const Options& options) {
    return {options.files, options.table, options.key};
}

// Empty for a service without notices.
std::string notifySubject(CVekEngine& engine, __serv_types service) {
    const std::string plain = CVekServiceToSubjectMapper::ServiceEnumToNotifySubject(service);
    const kvx::Text subject(plain.empty() ? nullptr : engine.RRNDomainSubj(plain.c_str()));
    return subject ? subject.get() : "";
}

// Fills the table; or, when changes are published, refreshes it, to find changes since it was
// filled, maybe while no member ran.
std::optional<Refusal> fill(Store& store, const Options& options, const Progress& progress) {
    const Source source = sourceOf(options);
    if (options.watchSource == 0 || !store.hasTable(options.table)) {
        return store.load(source, progress);
    }
    Refreshed done;
    auto refusal = store.refresh(
        source,
        [&](Change change, const Row& row) { return changeNotice(options.table, change, row); },
        done, progress);
    if (!refusal) Log::info("{} rows differed from the table that was there", done.all());
    return refusal;
}

// Fills, and retries while another member of the group is filling the same database.
std::optional<Refusal> fillWhenFree(Store& store, const Options& options,
                                    const Progress& progress) {
    bool told = false;
    while (true) {
        auto problem = store.awaitWriter();
        if (!problem) problem = fill(store, options, progress);
        if (!problem || problem->error != StoreError::Busy) return problem;
        if (!told) Log::info("another process writes to the database; waiting for it");
        told = true;
    }
}

// Opens the database and fills it; sets `rows` to the number of rows.
std::optional<Refusal> openAndFill(const Options& options, std::uint64_t& rows) {
    Refusal refusal;
    const auto store = Store::open(options.database, Store::Access::ReadWrite, refusal);
    if (!store) return refusal;
    ProgressLine line;
    auto problem = fillWhenFree(*store, options, [&](std::uint64_t done, std::uint64_t all) {
        rows = done;
        line.show(done, all);
    });
    if (problem && problem->error != StoreError::BadSource) {
        problem->message = options.database + ": " + problem->message;
    }
    return problem;
}

bool load(const Options& options) {
    if (options.files.empty()) return true;
    const auto begin = std::chrono::steady_clock::now();
    std::uint64_t rows = 0;
    if (const auto problem = openAndFill(options, rows)) {
        Log::error("{}", problem->message);
        return false;
    }
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
    Log::info("loaded {} rows in {:.2f} s into '{}'", rows, spent.count(), options.table);
    return true;
}

// Ignores, during loading and connecting, the signals that later do not end the process.
void ignoreHarmlessSignals() {
    kvx::platform::ignoreSignal(kvx::platform::signal_number::hangup());
    kvx::platform::ignoreSignal(kvx::platform::signal_number::user2());
    // The reader of the log may end before the service.
    kvx::platform::ignoreSignal(kvx::platform::signal_number::brokenPipe());
}

kvx::Result<kvx::Service> openService(const Options& options) {
    auto service =
        kvx::Service::open(CVekServiceToSubjectMapper::EnumToServiceString(options.service),
                           {.domain = options.domain,
                            .group = options.standalone ? std::string() : options.group,
                            .tier = options.tier,
                            .threads = options.threads,
                            .sendRate = options.sendRate});
    if (!service) Log::error("{}", service.error().message());
    return service;
}

}  // namespace

int run(const Options& options) {
    Log::setLevel(options.level);
    ignoreHarmlessSignals();
    // Before the loading, so that a change during it is found later.
    const FileWatch watch(options.files);
    if (!load(options)) return kFailure;
    const ReportsInLog reports;
    auto service = openService(options);
    if (!service) return kFailure;
    CVekEngine& engine = service->engine();
    ModelService model(*service, options.database, sourceOf(options),
                       fmt::format("tier {} of group {}", options.tier, options.group));
    DaemonLink link(engine);
    std::string reason;
    if (!model.start(reason) || !link.start()) {
        Log::error("{}", reason);
        return kFailure;
    }
    const Polls polls(*service, model, watch,
                      {options.database, sourceOf(options), notifySubject(engine, options.service),
                       options.watchSource, options.statistics, options.checkpoint});
    const int status = service->run();
    if (DaemonLink::unsent() != 0) {
        Log::info("ended by a signal; {} messages could not be sent", DaemonLink::unsent());
    } else if (status == 0 || !DaemonLink::isUp()) {
        Log::info("ended by a signal");
    } else {
        Log::warning("ended by a signal before everything was sent");
    }
    return DaemonLink::isUp() ? status : 0;  // without a daemon nothing can be done
}

}  // namespace modeld
