// The command line of modeld.

#include "examples/modeld/service/Options.h"

#include <CLI/CLI.hpp>

#include <sstream>

#include "commandline/Completion.h"
#include "examples/modeld/service/Log.h"
#include "platform/File.h"
#include "platform/Text.h"

namespace modeld {

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr std::size_t kLongestError = 600;  // bytes

std::string checkService(const std::string& name) {
    const auto type = CVekServiceToSubjectMapper::ServiceStringToEnum(name.c_str());
    return type == SERV_UNKNOWN ? "no service is named '" + name + "'" : std::string();
}

void addOptions(CLI::App& app, Options& options, std::string& service) {
    app.add_option("--db", options.database, "the SQLite database")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("--load", options.files,
                   "fill the table from comma-separated files before answering, then follow their "
                   "changes")
        ->check(CLI::ExistingFile);
    app.add_option("--table", options.table, "the table to fill")->capture_default_str();
    app.add_option("--key", options.key, "a column of the table to index");
    app.add_option("--service", service, "the service to answer for")
        ->type_name("SERVICE")
        ->check(checkService)
        ->capture_default_str();
    app.add_option("--domain", options.domain, "the domain to answer in")->capture_default_str();
    app.add_option("--group", options.group,
                   "base of the fault-tolerance group's name; else \"modeld.\" and the service");
    app.add_option("--tier", options.tier, "tier of the group; tiers do not replace one another")
        ->capture_default_str();
    app.add_flag("--standalone", options.standalone,
                 "join no group: answer at once, even if others do");
    app.add_option("--threads", options.threads, "threads that answer queries")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("--send-rate", options.sendRate, "packets sent per second at most")
        ->check(CLI::Range(10UL, 10000000UL))
        ->capture_default_str();
}

void addPolls(CLI::App& app, Options& options) {
    const auto add = [&app](const char* name, int& seconds, const char* what) {
        app.add_option(name, seconds, what + std::string("; 0 for never"))
            ->check(CLI::Range(0, 86400))
            ->capture_default_str();
    };
    add("--watch-source", options.watchSource, "seconds between looks at the files of --load");
    add("--statistics", options.statistics, "seconds between lines of statistics");
    add("--checkpoint", options.checkpoint, "seconds between checkpoints of the database");
}

}  // namespace

Options readOptions(int argc, char** argv, int& exitStatus) {
    Options options;
    std::string service = "Model";
    int verbose = 0;
    int quiet = 0;
    CLI::App app{"Answers queries over the bus from an SQLite database.", "modeld"};
    app.footer(
        "Queries: select FIELDS from TABLE [where CONDITION] [order by FIELD [asc|desc], ...]\n"
        "[limit N]. Texts are in single or double quotes, names that are keywords in double\n"
        "quotes.");
    app.set_version_flag("--version", std::string("modeld ") + KVX_VERSION);
    addOptions(app, options, service);
    addPolls(app, options);
    app.add_flag("-v,--verbose", verbose, "log more");
    app.add_flag("-q,--quiet", quiet, "log less");
    namespace commandline = kvx::commandline;
    commandline::addCompletion(
        app, commandline::Dashes::Two,
        {{"SERVICE", commandline::namesIn(CVekServiceToSubjectMapper::ms_ServiceEnumMap)}});
    exitStatus = -1;
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream out;
        std::ostringstream ignored;
        exitStatus = app.exit(error, out, ignored) == 0 ? 0 : kUsage;
        if (exitStatus == kUsage) {
            Log::error("{}; see modeld --help", kvx::shortened(error.what(), kLongestError));
        } else if (const auto failure = kvx::platform::writeOutput(out.str()); !failure.empty()) {
            Log::error("standard output: {}", failure);
            exitStatus = kFailure;
        }
    }
    options.service = CVekServiceToSubjectMapper::ServiceStringToEnum(service.c_str());
    if (options.group.empty()) {
        options.group = std::string("modeld.") +
                        CVekServiceToSubjectMapper::EnumToServiceString(options.service);
    }
    const int level = static_cast<int>(LogLevel::Info) + verbose - quiet;
    options.level = static_cast<LogLevel>(std::clamp(level, 0, static_cast<int>(LogLevel::Debug)));
    return options;
}

}  // namespace modeld
