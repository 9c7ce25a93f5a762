// The command line of kvx: one CLI11 subcommand for each function of Commands.h.

#include <CLI/CLI.hpp>
#include <functional>
#include <utility>

#include "tools/bus/Connection.h"
#include "tools/kvx/Commands.h"
#include "tools/kvx/Fields.h"

namespace kvx::tool {

namespace {

void addConnection(CLI::App& command, Connection& connection) {
    const auto plain = CLI::Validator(bus::problemWithPart, "");
    command.add_option("--daemon", connection.daemon, "daemon, as tcp:[host:]port")->check(plain);
    command.add_option("--service", connection.service, "bus service")->check(plain);
    command.add_option("--network", connection.network, "bus network")->check(plain);
    command.add_option("--domain", connection.domain, "domain that subjects are qualified with")
        ->check(plain);
    command.add_flag("--json", connection.json, "print JSON, one object a line");
}

void addPayload(CLI::App& command, Payload& payload) {
    command.add_option("fields", payload.fields, "NAME[:TYPE]=VALUE, or - for standard input");
    command.add_flag("--opaque", payload.opaque, "standard input holds bytes, not a text");
    command.footer("TYPE is one of " + fieldTypes() + "; without it the value is a text.");
}

class CommandLine {
  public:
    CommandLine() {
        app_.set_version_flag("--version", std::string("kvx ") + KVX_VERSION);
        app_.require_subcommand(1);
        addListen();
        addSend();
        addRequest();
        addQuery();
        addSnoop();
        addServices();
        addBench();
        app_.footer(
            "The daemon configuration file names daemon, service and network; options override "
            "it.\n\"kvx COMMAND --help\" tells more. Exit status: 0 success, 1 failure, 2 usage.");
    }

    int run(int argc, char** argv) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app_.exit(error) == 0 ? kSuccess : kUsage;
        }
        return chosen_();
    }

  private:
    template <class Options>
    CLI::App& add(const char* name, const char* what, Options& options,
                  int (*function)(const Options&)) {
        CLI::App& command = *app_.add_subcommand(name, what);
        addConnection(command, options.connection);
        command.callback([this, &options, function] {
            chosen_ = [&options, function] { return function(options); };
        });
        return command;
    }

    void addListen() {
        auto& command = add("listen", "print messages as they arrive", listen_, listen);
        command.add_option("subjects", listen_.subjects, "subjects, * and > as wildcards")
            ->required();
        command.add_option("--count", listen_.count, "leave after so many messages");
    }

    void addSend() {
        auto& command = add("send", "publish a message", send_, send);
        command.add_option("subject", send_.subject, "the subject")->required();
        command.add_option("--reply", send_.reply, "the reply subject");
        command.add_option("--repeat", send_.repeat, "how often to send it")->capture_default_str();
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
            "--csv", [this] { query_.format = RowFormat::Csv; }, "print comma-separated values");
        csv->excludes("--json");
        command.add_flag("--quiet", query_.quiet, "print no rows, only what they came to");
        addTimeout(command, query_.timeoutSeconds);
    }

    void addSnoop() {
        auto& command = add("snoop", "print a service's rows as they change", snoop_, snoop);
        command.add_option("SERVICE", snoop_.service, "the service's name, such as Model")
            ->required();
        command.add_option("--table", snoop_.table, "only the rows of this table");
        command.add_option("--count", snoop_.count, "leave after so many rows");
    }

    void addServices() {
        auto& command = add("services", "list the services that are alive", services_, services);
        auto* wait = command.add_option("--wait", services_.waitSeconds,
                                        "seconds to listen; services beat every 10 seconds");
        wait->check(CLI::Range(0.01, 3600.0))->capture_default_str();
        command.add_flag("--watch", services_.watch, "go on listening, until Ctrl-C")
            ->excludes(wait);
    }

    void addBench() {
        auto& command = add("bench", "measure the daemon's round trips and stream", bench_, bench);
        command.add_option("--messages", bench_.messages, "messages to stream")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        command.add_option("--requests", bench_.requests, "requests to time")
            ->check(CLI::PositiveNumber)
            ->capture_default_str();
        command.add_option("--bytes", bench_.bytes, "payload of a message")
            ->check(CLI::Range(1U, 1000000U))
            ->capture_default_str();
    }

    static void addTimeout(CLI::App& command, double& seconds) {
        command.add_option("--timeout", seconds, "seconds to wait for an answer")
            ->check(CLI::Range(0.001, 86400.0))
            ->capture_default_str();
    }

    CLI::App app_{"Talks to the services on the bus.", "kvx"};
    ListenOptions listen_;
    SendOptions send_;
    RequestOptions request_;
    QueryOptions query_;
    SnoopOptions snoop_;
    ServicesOptions services_;
    BenchOptions bench_;
    std::function<int()> chosen_;
};

}  // namespace

int runCommandLine(int argc, char** argv) {
    return CommandLine().run(argc, argv);
}

}  // namespace kvx::tool
