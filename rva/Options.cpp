#include "rva/Options.h"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <cctype>
#include <charconv>
#include <fstream>
#include <string_view>
#include <utility>

#include "commandline/Completion.h"
#include "commandline/Parse.h"
#include "platform/CommandLine.h"
#include "rv/rv.h"
#include "tools/bus/Complain.h"

namespace kvx::rva {

namespace {

constexpr const char* kProgram = "rva";

struct Texts {
    std::string flavour = std::to_string(kvx::flavourId);
    std::string listen;
    std::string interval;
    bool foreground = false;
};

// An empty value, as of a variable that is not set, must not count as none: a token would be
// missed.
CLI::Validator notEmpty() {
    return {[](const std::string& text) { return text.empty() ? "an empty value" : std::string(); },
            ""};
}

// Of an option given twice the last value counts; of hosts each.
void describe(CLI::App& app, Texts& texts, Options& options) {
    const auto add = [&app](const char* name, auto& value, const char* text) {
        return app.add_option(name, value, text)->take_last();
    };
    app.set_version_flag("--version", "rva " KVX_VERSION);
    app.add_flag("--foreground", texts.foreground,
                 "No effect: the agent always stays in the foreground");
    add("--flavor", texts.flavour, "The system's flavour identifier; any other is refused")
        ->type_name("FLAVOR");
    add("--listen", texts.listen,
        "A port of the loopback, 0 for a free one, or tcp:HOST:PORT, which needs a token unless it "
        "is of the loopback; else the configuration file's \"rva\", else 7600")
        ->check(notEmpty());
    add("--token-file", options.tokenFile, "Serve those only who have the token in its first line")
        ->type_name("FILE")
        ->check(notEmpty());
    app.add_option("--host", options.hosts,
                   "A further name by which clients reach this agent, as through a proxy; may be "
                   "repeated")
        ->allow_extra_args(false);
    add("--interval", texts.interval,
        "How often the daemon is asked about itself, in seconds up to 3600; 0: never; default: 10")
        ->check(notEmpty());
    bus::BusOptions& bus = options.connection;
    add("--domain", bus.domain, "The domain in which services are asked; default: DEFAULT");
    add("--service", bus.service, "The address of the bus; default: the configuration file");
    add("--network", bus.network, "Likewise");
    add("--daemon", bus.daemon, "Likewise");
    app.footer(commandline::kDashes);
    commandline::addCompletion(app, commandline::Dashes::Any,
                               {{"FLAVOR", {std::to_string(kvx::flavourId)}}});
}

// The following return an empty text, or the error.

std::string checkParts(const bus::BusOptions& bus) {
    for (const auto& [option, part] :
         {std::pair("service", &bus.service), std::pair("network", &bus.network),
          std::pair("daemon", &bus.daemon), std::pair("domain", &bus.domain)}) {
        const std::string problem = bus::problemWithPart(*part);
        if (!problem.empty()) return fmt::format("-{}: {}", option, problem);
    }
    return {};
}

std::string takeInterval(const std::string& text, unsigned& seconds) {
    if (text.empty()) return {};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber && seconds <= kMostIntervalSeconds) return {};
    return fmt::format("-interval: '{}' is no number of seconds from 0 to {}", text,
                       kMostIntervalSeconds);
}

std::string evaluate(const Texts& texts, Options& options) {
    if (texts.flavour != std::to_string(kvx::flavourId)) {
        return fmt::format("the flavour '{}' is not this system's, which is {}", texts.flavour,
                           kvx::flavourId);
    }
    std::string problem = checkParts(options.connection);
    if (problem.empty()) problem = takeInterval(texts.interval, options.intervalSeconds);
    if (!problem.empty()) return problem;
    return texts.listen.empty() ? "" : parseListen(texts.listen, options.listen.emplace());
}

}  // namespace

std::string parseListen(const std::string& text, ListenAddress& address) {
    std::string_view rest = text;
    if (rest.starts_with("tcp:")) {
        rest.remove_prefix(4);
        const auto colon = rest.rfind(':');
        if (colon != std::string_view::npos) {
            address.host = rest.substr(0, colon);
            rest.remove_prefix(colon + 1);
        }
    }
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), address.port);
    if (error != std::errc() || end != rest.data() + rest.size()) {
        return "'" + text + "' is no port to listen on";
    }
    const auto found = address.host.empty() ? std::nullopt : platform::resolveHost(address.host);
    if (!found) return "'" + text + "': no address of that host is known";
    address.address = *found;
    return {};
}

std::string readToken(const std::string& file, std::string& token) {
    constexpr std::size_t kLeast = 16;
    std::ifstream in(file);
    if (!in) return "cannot read the token file '" + file + "'";
    std::getline(in, token);
    while (!token.empty() && std::isspace(static_cast<unsigned char>(token.back())))
        token.pop_back();
    if (token.size() >= kLeast) return {};
    return "the token file '" + file + "' has no token of 16 or more characters in its first line";
}

CommandLine parseCommandLine(int argc, const char* const* argv) {
    CLI::App app(
        "The bus agent: receives the services' heartbeats and the bus's advisories, asks the "
        "daemon "
        "about itself, and serves all that and the bus itself by HTTP: / lists the pages.",
        kProgram);
    Texts texts;
    CommandLine result;
    describe(app, texts, result.options);
    result.exitStatus = commandline::parse(app, argc, argv);
    if (result.exitStatus) return result;
    if (const std::string error = evaluate(texts, result.options); !error.empty()) {
        result.exitStatus = platform::refuse(kProgram, error + "; see rva --help");
    }
    return result;
}

}  // namespace kvx::rva
