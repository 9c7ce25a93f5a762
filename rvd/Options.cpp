#include "rvd/Options.h"

#include <CLI/CLI.hpp>
#include <array>
#include <charconv>
#include <cstdio>
#include <limits>
#include <sstream>
#include <vector>

#include "platform/CommandLine.h"
#include "platform/Socket.h"
#include "platform/Text.h"
#include "rv/wire/Limits.h"
#include "rvd/Counters.h"

namespace kvx::rvd {
namespace {

constexpr const char* kProgram = "rvd";
constexpr const char* kHalf = "half";
constexpr const char* kVersionLine = "rvd " KVX_VERSION;

// Options with one dash, which the library uses when it starts a daemon.
constexpr std::array<std::string_view, 4> kOneDash = {"-listen", "-address", "-queue-limit",
                                                      "-memory"};

std::vector<std::string> normalised(int argc, const char* const* argv) {
    std::vector<std::string> reversed;  // the parser takes its arguments from the back
    for (int i = argc - 1; i > 0; --i) {
        std::string argument = argv[i];
        for (const auto option : kOneDash) {
            if (argument == option) argument.insert(0, 1, '-');
        }
        reversed.push_back(std::move(argument));
    }
    return reversed;
}

std::optional<std::uint16_t> parsePort(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return port;
}

struct Texts {
    std::string listen = wire::kDefaultDaemon;
    std::string address;
    std::string queueLimit = "64M";
    std::string memory = kHalf;
    int verbose = 0;
    bool quiet = false;
    bool counters = false;
};

void describe(CLI::App& app, Texts& texts) {
    app.set_version_flag("--version", kVersionLine);
    app.add_option("--listen", texts.listen,
                   "Where to accept: tcp:[host:]port; 127.0.0.1 without a host, a free port for 0 "
                   "(also spelled -listen)")
        ->capture_default_str();
    app.add_option("--address", texts.address,
                   "IPv4 address reported to local clients as this host's (also -address)");
    app.add_option("--queue-limit", texts.queueLimit,
                   "Limit of the queue of one session in bytes, with k, M or G (also -queue-limit)")
        ->capture_default_str();
    app.add_option("--memory", texts.memory,
                   "Limit of the memory held for all sessions in bytes, with k, M or G, or half of "
                   "what this process may use (also -memory)")
        ->capture_default_str();
    app.add_flag("-v,--verbose", texts.verbose, "Log every connection");
    app.add_flag("-q,--quiet", texts.quiet, "Log errors only");
    app.add_flag("--counters", texts.counters, "Print the daemon's counters, and end");
}

// Returns an empty text, or the error.
std::string evaluate(const Texts& texts, Options& options) {
    if (std::string error = parseListen(texts.listen, options); !error.empty()) return error;
    if (!texts.address.empty()) {
        options.hostAddress = platform::resolveHost(texts.address);
        if (!options.hostAddress) return "cannot resolve address '" + texts.address + "'";
    }
    const auto limit = parseBytes(texts.queueLimit);
    if (!limit) return "'" + texts.queueLimit + "' is no queue limit (a number with k, M or G)";
    options.queueLimit = *limit;
    if (texts.memory != kHalf) {
        options.memoryLimit = parseBytes(texts.memory);
        if (!options.memoryLimit) {
            return "'" + texts.memory + "' is no limit of memory (a number with k, M or G)";
        }
    }
    if (texts.verbose > 0) options.logLevel = platform::LogLevel::Debug;
    if (texts.quiet) options.logLevel = platform::LogLevel::Error;
    return {};
}

}  // namespace

std::string parseListen(const std::string& text, Options& options) {
    std::string shape = "'" + text + "' is no listen address (tcp:[host:]port)";
    constexpr std::string_view kScheme = "tcp:";
    if (!text.starts_with(kScheme)) return shape;
    const std::string rest = text.substr(kScheme.size());
    const auto colon = rest.rfind(':');
    const auto port = parsePort(colon == std::string::npos ? rest : rest.substr(colon + 1));
    if (!port || colon == 0) return shape;
    options.listenPort = *port;
    options.listenAddress = platform::kLoopbackAddress;
    if (colon == std::string::npos) return {};
    const std::string host = rest.substr(0, colon);
    const auto address = platform::resolveHost(host);
    if (!address) return "cannot resolve host '" + host + "'";
    options.listenAddress = *address;
    return {};
}

std::optional<std::uint64_t> parseBytes(const std::string& text) {
    std::uint64_t number = 0;
    const char* last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, number);
    if (error != std::errc() || number == 0 || last - end > 1) return std::nullopt;
    const std::string_view suffixes = "kMG";
    unsigned shift = 0;
    if (end != last) {
        const auto at = suffixes.find(*end == 'K'   ? 'k'
                                      : *end == 'm' ? 'M'
                                      : *end == 'g' ? 'G'
                                                    : *end);
        if (at == std::string_view::npos) return std::nullopt;
        shift = 10 * (static_cast<unsigned>(at) + 1);
    }
    if (number > std::numeric_limits<std::uint64_t>::max() >> shift) return std::nullopt;
    return number << shift;
}

CommandLine parseCommandLine(int argc, const char* const* argv) {
    CLI::App app("The bus daemon: accepts sessions and routes their messages.", "rvd");
    Texts texts;
    CommandLine result;
    describe(app, texts);
    try {
        app.parse(normalised(argc, argv));
    } catch (const CLI::ParseError& error) {
        std::ostringstream out;
        std::ostringstream ignored;
        const bool isAsked = app.exit(error, out, ignored) == 0;
        result.exitStatus =
            isAsked ? platform::answer(kProgram, out.str())
                    : platform::refuse(kProgram, error.what() + std::string("; see rvd --help"));
        return result;
    }
    if (texts.counters) {
        std::ostringstream table;
        printCounterTable(table);
        result.exitStatus = platform::answer(kProgram, table.str());
    } else if (const std::string error = evaluate(texts, result.options); !error.empty()) {
        result.exitStatus = platform::refuse(kProgram, error);
    }
    return result;
}

}  // namespace kvx::rvd
