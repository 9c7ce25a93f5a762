// The command line of kvx: one CLI11 subcommand for each function of Commands.h.

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <functional>
#include <utility>
#include <vector>

#include "commandline/Completion.h"
#include "platform/File.h"
#include "platform/Text.h"
#include "rv/wire/DaemonText.h"
#include "tools/bus/BusOptions.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Fields.h"
#include "tools/kvx/Nearest.h"

namespace kvx::tool {

namespace {

void addOptionNames(const CLI::App& app, std::vector<std::string>& names) {
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
}

std::string unknownOption(const CLI::App& app, const CLI::App* command, const std::string& word) {
    std::vector<std::string> known;
    addOptionNames(app, known);
    if (command != nullptr) addOptionNames(*command, known);
    const std::string name = word.substr(0, word.find('='));
    return fmt::format("unknown option {}{}", quoted(name), suggestion(name, known));
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

std::vector<std::string> commandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(command->get_name());
    }
    return names;
}

// The same for `word` in the place of a command of `app`.
std::string unknownCommand(const CLI::App& app, const std::string& word) {
    return fmt::format("unknown command {}{}", quoted(word), suggestion(word, commandNames(app)));
}

// One line about a command line that `app` refused with `error`: it names an unknown command or
// option, with the nearest known one.
std::string usageProblem(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> strange = app.remaining(true);
    const auto chosen = app.get_subcommands();
    const CLI::App* const command = chosen.empty() ? nullptr : chosen.front();
    const auto option = std::find_if(strange.begin(), strange.end(), isOption);
    if (option != strange.end()) return unknownOption(app, command, *option);
    if (command == nullptr && !strange.empty()) return unknownCommand(app, strange.front());
    if (command == nullptr && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr) {
        return "a command is missing; \"kvx help\" lists them";
    }
    if (!strange.empty()) return fmt::format("{} is one word too many", quoted(strange.front()));
    return error.what();
}

// The error in `text` as a domain, or an empty text.
std::string problemWithDomain(const std::string& text) {
    return text.empty() || isSubject("A." + text) ? "" : quoted(text) + " is no domain";
}

// The error in `text` as a whole number of at least `least`, or an empty text.
std::string problemWithCount(const std::string& text, std::uint64_t least) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    if (isWhole && number >= least) return {};
    return fmt::format("{} is no whole number of at least {}", quoted(text), least);
}

// The error in `text` as a number, decimals allowed, of that unit, or an empty text.
std::string problemWithNumber(const std::string& text, double least, double most,
                              const char* unit) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber && number >= least && number <= most) return {};  // "nan" is a number, too
    return fmt::format("{} is not between {:g} and {:g}{}", quoted(text), least, most, unit);
}

void addPayload(CLI::App& command, Payload& payload) {
    command.add_option("fields", payload.fields, "NAME[:TYPE]=VALUE, or - for standard input");
    command.add_flag("--opaque", payload.opaque, "standard input holds bytes, not a text");
    command.footer("TYPE is one of " + fieldTypes() + "; without it the value is a text.\n" +
                   command.get_footer());
}

class CommandLine {
  public:
    CommandLine() {
        app_.set_version_flag("--version", std::string("kvx ") + KVX_VERSION);
        app_.require_subcommand(1);
        app_.fallthrough();  // global options may follow the command, too
        addConnection();
        addListen();
        addSend();
        addRequest();
        addQuery();
        addSnoop();
        addFollow();
        addServices();
        addHosts();
        addDaemon();
        addLatency();
        addRecordings();
        addExplain();
        addDoctor();
        addBench();
        addHelp();
        addCompletion();
        app_.footer(
            "The daemon configuration file names daemon, service and network; options override "
            "it.\nThese options may stand before and after the command. \"kvx help COMMAND\" tells "
            "more.\nExit status: 0 success, 1 failure, 2 usage.");
    }

    int run(int argc, char** argv) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::CallForHelp&) {
            bus::print(app_.help());
            return kSuccess;
        } catch (const CLI::CallForVersion& version) {
            bus::printLine(version.what());
            return kSuccess;
        } catch (const CLI::ParseError& error) {
            bus::complain(usageProblem(app_, error));
            return kUsage;
        }
        return chosen_();
    }

  private:
    void addConnection() {
        const auto plain = CLI::Validator(bus::problemWithPart, "");
        app_.add_option("--daemon", connection_.daemon,
                        std::string("daemon, as ") + wire::kDaemonForms)
            ->check(plain);
        app_.add_option("--service", connection_.service, "bus service")->check(plain);
        app_.add_option("--network", connection_.network, "bus network")->check(plain);
        app_.add_option("--domain", connection_.domain, "domain that subjects are qualified with")
            ->check(plain)
            ->check(CLI::Validator(problemWithDomain, ""));
        json_ = app_.add_flag("--json", connection_.json, "print JSON, one object a line");
        app_.add_flag("-v,--verbose", connection_.verbose, "report more on standard error");
    }

    template <class Options>
    CLI::App& add(const char* name, const char* what, Options& options,
                  int (*function)(const Options&)) {
        CLI::App& command = *app_.add_subcommand(name, what);
        command.footer("\"kvx help\" lists the options of every command.");
        command.callback([this, &options, function] {
            chosen_ = [this, &options, function] {
                options.connection = connection_;
                return function(options);
            };
        });
        return command;
    }

    void addListen() {
        auto& command = add("listen", "print messages as they arrive", listen_, listen);
        command.add_option("subjects", listen_.subjects, "subjects, * and > as wildcards")
            ->required();
        addCount(command, "--count", listen_.count, "leave after this many messages; 0 for never");
    }

    void addSend() {
        auto& command = add("send", "publish a message", send_, send);
        command.add_option("subject", send_.subject, "the subject")->required();
        command.add_option("--reply", send_.reply, "the reply subject");
        addCount(command, "--repeat", send_.repeat, "how often to send it, at least once", 1);
        addPayload(command, send_.payload);
    }

    void addRequest() {
        auto& command = add("request", "publish a request and print its answer", request_, request);
        command.add_option("subject", request_.subject, "the subject")->required();
        addTimeout(command, request_.timeoutSeconds);
        addPayload(command, request_.payload);
    }

    void addQuery() {
        auto& command = add("query", "ask a service and print the rows", query_, query);
        command.add_option("SERVICE", query_.service, "the service's name, such as Model")
            ->required();
        command.add_option("QUERY", query_.text, "the query, in quotes")->required();
        auto* csv = command.add_flag_callback(
            "--csv", [this] { query_.format = RowFormat::AsCsv; }, "print comma-separated values");
        csv->excludes(json_);
        command.add_flag("--quiet", query_.quiet, "print no rows, only the summary");
        addTimeout(command, query_.timeoutSeconds);
    }

    void addSnoop() {
        auto& command = add("snoop", "print a service's rows as they change", snoop_, snoop);
        command.add_option("SERVICE", snoop_.service, "the service's name, such as Model")
            ->required();
        command.add_option("--table", snoop_.table, "only the rows of this table");
        addCount(command, "--count", snoop_.count, "leave after this many rows; 0 for never");
    }

    void addFollow() {
        auto& command =
            add("follow", "ask a service, print the rows and then every change", follow_, follow);
        command.add_option("SERVICE", follow_.service, "the service's name, such as Model")
            ->required();
        command.add_option("QUERY", follow_.text, "the query, in quotes")->required();
        addCount(command, "--count", follow_.count, "leave after this many changes; 0 for never");
        addTimeout(command, follow_.timeoutSeconds);
    }

    void addServices() {
        auto& command = add("services", "list the running services", services_, services);
        auto* wait = command.add_option("--wait", services_.waitSeconds,
                                        "seconds to listen; services beat every 10 seconds");
        wait->check(secondsBetween(0.01, 3600))->capture_default_str();
        command.add_flag("--watch", services_.watch, "go on listening, until Ctrl-C")
            ->excludes(wait);
    }

    void addHosts() {
        auto& command = add("hosts", "list the hosts that are joined with this one", hosts_, hosts);
        addTimeout(command, hosts_.timeoutSeconds);
    }

    void addDaemon() {
        addTimeout(add("status", "show how the daemon is: limits, rates, memory", daemon_, status),
                   daemon_.timeoutSeconds);
        auto& listed = add("sessions", "list who is on the daemon", daemon_, sessions);
        addTimeout(listed, daemon_.timeoutSeconds);
        auto& live = add("top", "show sessions and subjects live", daemon_, top);
        live.add_option("--interval", daemon_.interval, "seconds between updates")
            ->check(secondsBetween(0.1, 3600))
            ->capture_default_str();
        addCount(live, "--count", daemon_.count, "with --json: leave after this many updates");
        addTimeout(live, daemon_.timeoutSeconds);
        auto& flows = add("subjects", "list the busiest subjects", daemon_, subjects);
        flows.add_option("PATTERN", daemon_.subject, "only these, * and > as wildcards");
        addCount(flows, "--limit", daemon_.limit, "the most rows; 0 for all that are known");
        flows.add_flag("--shapes", daemon_.shapes, "show the fields of the messages");
        flows.add_flag("--tree", daemon_.tree, "show them as a tree");
        addTimeout(flows, daemon_.timeoutSeconds);
        auto& traced =
            add("trace", "tell who would get a message, by which listen", daemon_, trace);
        traced.add_option("SUBJECT", daemon_.subject, "the message's subject")->required();
        addTimeout(traced, daemon_.timeoutSeconds);
        auto& slow =
            add("why-slow", "tell who holds up messages, and what to do", daemon_, whySlow);
        slow.add_option("SUBJECT", daemon_.subject, "only who would get a message on it");
        addTimeout(slow, daemon_.timeoutSeconds);
        auto& replaced =
            add("upgrade", "replace the daemon by the rvd that is installed now, while it works",
                upgrade_, upgrade);
        upgrade_.timeoutSeconds = 30;
        addTimeout(replaced, upgrade_.timeoutSeconds);
    }

    void addLatency() {
        auto& command =
            add("latency", "tell how long messages are in the daemon", latency_, latency);
        command.add_option("SUBJECT", latency_.subject, "of these, * and > as wildcards")
            ->required();
        command
            .add_option("--seconds", latency_.seconds, "how long to measure; 0 for until Ctrl-C")
            ->check(secondsBetween(0, 86400))
            ->capture_default_str();
        addTimeout(command, latency_.timeoutSeconds);
    }

    void addRecordings() {
        // An empty text, such as of a variable that is not set, selects nothing by intent.
        const CLI::Validator notEmpty(
            [](const std::string& text) {
                return text.empty() ? std::string("an empty text selects nothing") : std::string();
            },
            "");
        const auto addFilters = [this, &notEmpty](CLI::App& command) {
            command
                .add_option("--subject", recording_.subject,
                            "only messages on these, * and > as wildcards")
                ->check(notEmpty);
            command
                .add_option("--space", recording_.space, "only of this service, or SERVICE;NETWORK")
                ->check(notEmpty);
        };
        auto& copied =
            add("record", "copy what the daemon has recorded into a file", recording_, record);
        copied.add_option("FILE", recording_.file, "a new file")->required();
        copied
            .add_option("--from", recording_.from,
                        "the recording to copy; the daemon's unless given")
            ->type_name("FILE")
            ->check(notEmpty);
        addFilters(copied);
        addTimeout(copied, recording_.timeoutSeconds);
        auto& printed = add("dump", "print the messages of a recording", recording_, dump);
        printed.add_option("FILE", recording_.file, "the recording")->required();
        addFilters(printed);
        auto& sent = add("replay", "send the messages of a recording again", recording_, replay);
        sent.add_option("FILE", recording_.file, "the recording")->required();
        sent.add_option("--speed", recording_.speed,
                        "how many times as fast as recorded; 0 for as fast as possible")
            ->check(numberBetween(0, 1e6))
            ->capture_default_str();
        addFilters(sent);
    }

    void addExplain() {
        auto& command = add("explain", "say why a code, advisory or log line comes, and what to do",
                            explain_, explain);
        command.add_option("words", explain_.words,
                           "a number, a name or a text; without any all are listed");
    }

    void addDoctor() {
        auto& command =
            add("doctor", "look at host, daemon and bus, and say what to mend", doctor_, doctor);
        addTimeout(command, doctor_.timeoutSeconds);
        command
            .add_option("--wait", doctor_.waitSeconds, "seconds to listen for beats; 0 for none")
            ->check(secondsBetween(0, 3600))
            ->capture_default_str();
    }

    void addBench() {
        auto& command = add("bench", "measure round trips, one way and a stream", bench_, bench);
        addCount(command, "--messages", bench_.messages, "messages to stream", 1);
        addCount(command, "--requests", bench_.requests, "requests to time", 1);
        command.add_option("--bytes", bench_.bytes, "payload of a message")
            ->check(CLI::Range(1U, 1000000U))
            ->capture_default_str();
    }

    void addHelp() {
        CLI::App& command = *app_.add_subcommand("help", "print the help of a command");
        command.add_option("COMMAND", helpTopic_, "the command");
        command.callback([this] { chosen_ = [this] { return help(); }; });
    }

    void addCompletion() {
        commandline::addCompletion(
            app_, commandline::Dashes::Two,
            {{"COMMAND", commandNames(app_)},
             {"SERVICE", commandline::namesIn(CVekServiceToSubjectMapper::ms_ServiceEnumMap)}});
    }

    int help() {
        if (helpTopic_.empty()) {
            // `App::help` would print this command's help.
            bus::print(app_.get_formatter()->make_help(&app_, app_.get_name(),
                                                       CLI::AppFormatMode::Normal));
            return kSuccess;
        }
        const auto topics = app_.get_subcommands(
            [&](const CLI::App* command) { return command->get_name() == helpTopic_; });
        if (topics.empty()) {
            bus::complain(unknownCommand(app_, helpTopic_));
            return kUsage;
        }
        bus::print(topics.front()->help(app_.get_name()));
        return kSuccess;
    }

    // A whole number of at least `least`.
    static void addCount(CLI::App& command, const char* name, std::uint64_t& count,
                         const char* what, std::uint64_t least = 0) {
        command.add_option(name, count, what)
            ->check(CLI::Validator(
                [least](const std::string& text) { return problemWithCount(text, least); }, ""))
            ->capture_default_str();
    }

    static CLI::Validator secondsBetween(double least, double most) {
        return numberBetween(least, most, " seconds");
    }

    static CLI::Validator numberBetween(double least, double most, const char* unit = "") {
        return CLI::Validator(
            [=](const std::string& text) { return problemWithNumber(text, least, most, unit); },
            "");
    }

    static void addTimeout(CLI::App& command, double& seconds) {
        command.add_option("--timeout", seconds, "seconds to wait for an answer")
            ->check(secondsBetween(0.001, 86400))
            ->capture_default_str();
    }

    Connection connection_;
    CLI::Option* json_ = nullptr;
    std::string helpTopic_;
    CLI::App app_{"Talks to the services on the bus.", "kvx"};
    ListenOptions listen_;
    SendOptions send_;
    RequestOptions request_;
    QueryOptions query_;
    SnoopOptions snoop_;
    FollowOptions follow_;
    ServicesOptions services_;
    HostsOptions hosts_;
    DaemonOptions daemon_;
    DaemonOptions upgrade_;
    LatencyOptions latency_;
    RecordingOptions recording_;
    ExplainOptions explain_;
    DoctorOptions doctor_;
    BenchOptions bench_;
    std::function<int()> chosen_;
};

}  // namespace

std::optional<ServiceName> serviceNamed(const std::string& name) {
    auto service = ServiceName::of(name);
    if (service) return std::move(*service);
    bus::complain(service.error().message());
    return std::nullopt;
}

std::optional<ServiceName> publisherNamed(const std::string& name) {
    auto service = serviceNamed(name);
    if (!service || !service->notifySubject().empty()) return service;
    bus::complain("the service '" + name + "' publishes no changes");
    return std::nullopt;
}

bool talks(const Connection& connection) {
    return connection.verbose || platform::isTerminal(stderr);
}

int runCommandLine(int argc, char** argv) {
    return CommandLine().run(argc, argv);
}

}  // namespace kvx::tool
