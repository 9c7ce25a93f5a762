// Options have one dash. The word after an option with a value is always its value, even the daemon
// "-".

#include "rva/Options.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <map>
#include <sstream>
#include <string_view>

#include "rv/rv.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"

namespace kvx::rva {

namespace {

constexpr const char* kUsageText =
    "usage: rva [-foreground] [-flavor N] [-listen ADDRESS] [-token-file FILE] [-host NAME]...\n"
    "           [-interval SECONDS] [-domain D] [-service S] [-network N] [-daemon D]\n"
    "\n"
    "The bus agent: receives the services' heartbeats and the bus's advisories, asks the daemon\n"
    "about itself, and serves all that and the bus itself by HTTP: / lists the pages.\n"
    "\n"
    "  -foreground  no effect: the agent always stays in the foreground\n"
    "  -flavor N    the system's flavour identifier; any other is refused\n"
    "  -listen ADDRESS\n"
    "               a port of the loopback, 0 for a free one, or tcp:HOST:PORT, which needs a\n"
    "               token unless it is of the loopback; else the configuration file's \"rva\",\n"
    "               else 7600\n"
    "  -token-file FILE\n"
    "               serve those only who have the token in its first line\n"
    "  -host NAME   a further name by which clients reach this agent, as through a proxy\n"
    "  -interval SECONDS\n"
    "               how often the daemon is asked about itself, up to 3600; 0: never; default: "
    "10\n"
    "  -domain D    the domain in which services are asked; default: DEFAULT\n"
    "  -service, -network, -daemon\n"
    "               the address of the bus; default: the configuration file\n"
    "  -help, -version\n";

using Values = std::map<std::string, std::string>;

// Reads the values by option, without the dash. Returns an empty text, or the error.
std::string readValues(int argc, const char* const* argv, Values& values) {
    static constexpr std::string_view kWithValue[] = {"-flavor",  "-listen",   "-token-file",
                                                      "-host",    "-interval", "-domain",
                                                      "-service", "-network",  "-daemon"};
    static constexpr std::string_view kAlone[] = {"-foreground", "-help", "-version"};
    const auto isOneOf = [](const auto& options, std::string_view word) {
        return std::find(std::begin(options), std::end(options), word) != std::end(options);
    };
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (isOneOf(kAlone, word)) {
            values[word.substr(1)] = "";
        } else if (!isOneOf(kWithValue, word)) {
            return "'" + word + "' is no option";
        } else if (++i == argc) {
            return word + " needs a value";
        } else {
            // Of hosts each counts.
            std::string& value = values[word.substr(1)];
            if (word != "-host") value.clear();
            if (!value.empty()) value += '\n';
            value += argv[i];
        }
    }
    return {};
}

// Copies the value of an option that names a part of the bus. Returns as `readValues`.
std::string takePart(const Values& values, const char* option, std::string& part) {
    const auto found = values.find(option);
    if (found == values.end()) return {};
    part = found->second;
    const std::string problem = bus::problemWithPart(part);
    return problem.empty() ? problem : fmt::format("-{}: {}", option, problem);
}

// Returns as `readValues`.
std::string takeInterval(const Values& values, unsigned& seconds) {
    const auto found = values.find("interval");
    if (found == values.end()) return {};
    const std::string& text = found->second;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber && seconds <= kMostIntervalSeconds) return {};
    return fmt::format("-interval: '{}' is no number of seconds from 0 to {}", text,
                       kMostIntervalSeconds);
}

std::string evaluate(const Values& values, Options& options) {
    const auto flavour = values.find("flavor");
    if (flavour != values.end() && flavour->second != std::to_string(kvx::flavourId)) {
        return fmt::format("the flavour '{}' is not this system's, which is {}", flavour->second,
                           kvx::flavourId);
    }
    bus::BusOptions& bus = options.connection;
    for (const auto& [option, part] :
         {std::pair("service", &bus.service), std::pair("network", &bus.network),
          std::pair("daemon", &bus.daemon), std::pair("domain", &bus.domain)}) {
        if (std::string problem = takePart(values, option, *part); !problem.empty()) return problem;
    }
    std::string problem = takeInterval(values, options.intervalSeconds);
    const auto listen = values.find("listen");
    if (!problem.empty()) return problem;
    if (const auto file = values.find("token-file"); file != values.end()) {
        options.tokenFile = file->second;
        if (options.tokenFile.empty()) return "-token-file: no file";
    }
    if (const auto hosts = values.find("host"); hosts != values.end()) {
        std::istringstream names(hosts->second);
        for (std::string name; std::getline(names, name);) options.hosts.push_back(name);
    }
    if (listen == values.end()) return {};
    return parseListen(listen->second, options.listen.emplace());
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
    CommandLine result;
    Values values;
    std::string problem = readValues(argc, argv, values);
    if (problem.empty() && values.contains("help")) {
        bus::print(kUsageText);
        result.exitStatus = kSuccess;
    } else if (problem.empty() && values.contains("version")) {
        bus::printLine("rva " KVX_VERSION);
        result.exitStatus = kSuccess;
    } else {
        if (problem.empty()) problem = evaluate(values, result.options);
        if (problem.empty()) return result;
        bus::complain(problem);
        bus::note(kUsageText);
        result.exitStatus = kUsage;
    }
    return result;
}

}  // namespace kvx::rva
