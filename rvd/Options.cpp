#include "rvd/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <optional>
#include <sstream>
#include <vector>

#include "commandline/Completion.h"
#include "commandline/Parse.h"
#include "platform/CommandLine.h"
#include "platform/Process.h"
#include "platform/Socket.h"
#include "platform/Text.h"
#include "rv/recording/RecordFormat.h"
#include "rv/wire/DaemonText.h"
#include "rv/wire/Limits.h"
#include "rvd/Counters.h"
#include "rvd/Version.h"

namespace kvx::rvd {
namespace {

constexpr const char* kProgram = "rvd";
constexpr const char* kHalf = "half";
constexpr std::uint64_t kLeastRecorder = 64U << 10U;  // bytes
constexpr std::uint64_t kLeastKept = 8;               // messages, however long

// A decimal number and nothing else.
template <class Number>
std::optional<Number> parseNumber(std::string_view text) {
    Number number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

// How to start the same program again, with the same options.
platform::Program programOf(int argc, const char* const* argv) {
    platform::Program program;
    const std::string name = argc > 0 ? argv[0] : kProgram;
    std::error_code error;
    program.path =
        name.find('/') != std::string::npos
            ? std::filesystem::absolute(name, error).string()
            : platform::findOnPath(name).value_or(platform::programDirectory() + '/' + name);
    for (int i = 0; i < argc; ++i) {
        if (std::string_view(argv[i]) == kTakeOver) {
            ++i;  // with its descriptor
        } else {
            program.arguments.emplace_back(argv[i]);
        }
    }
    return program;
}

struct Texts {
    std::vector<std::string> listen = {wire::kDefaultDaemon};
    std::vector<std::string> networks;
    std::vector<std::string> users;
    std::vector<std::string> statusFor;
    std::string address;
    int takeOver = -1;
    std::string queueLimit = "64M";
    std::string memory = kHalf;
    std::optional<std::string> recorder;
    std::string recorderBytes = "512";
    std::string recorderFile;
    int verbose = 0;
    bool quiet = false;
    bool counters = false;
};

void describe(CLI::App& app, Texts& texts) {
    app.set_version_flag("--version", std::string(kProgram) + ' ' + version());
    app.add_option("--listen", texts.listen,
                   "Where to accept, once for each address: tcp:[host:]port, 127.0.0.1 without a "
                   "host, a free port for 0; or unix:/path")
        ->allow_extra_args(false)
        ->capture_default_str();
    app.add_option("--allow", texts.networks,
                   "Who may use TCP, once for each network: a.b.c.d or a.b.c.d/n; everybody unless "
                   "given")
        ->allow_extra_args(false);
    app.add_option("--allow-user", texts.users,
                   "Who may use unix sockets, once for each user: a name or an id; every local "
                   "user unless given")
        ->type_name("USER")
        ->allow_extra_args(false);
    app.add_option("--status-for", texts.statusFor,
                   "Which other hosts may ask how the daemon is and who is on it, once for each "
                   "network: a.b.c.d or a.b.c.d/n; none unless given")
        ->allow_extra_args(false);
    app.add_option("--address", texts.address,
                   "IPv4 address reported to local clients as this host's");
    app.add_option("--queue-limit", texts.queueLimit,
                   "Limit of the queue of one session in bytes, with k, M or G")
        ->capture_default_str();
    app.add_option("--memory", texts.memory,
                   "Limit of the memory held for all sessions in bytes, with k, M or G, or half of "
                   "what this process may use")
        ->capture_default_str();
    app.add_option(
        "--recorder", texts.recorder,
        "Keep the last messages in a file of so many bytes, with k, M or G, that outlives "
        "a crash");
    app.add_option("--recorder-file", texts.recorderFile,
                   "That file; in $RUNTIME_DIRECTORY, else /dev/shm, unless given")
        ->type_name("FILE");
    app.add_option("--recorder-bytes", texts.recorderBytes,
                   "How many bytes are kept of each message, with k, M or G, at most an eighth of "
                   "the recording")
        ->capture_default_str();
    app.add_flag("-v,--verbose", texts.verbose, "Log every connection");
    app.add_flag("-q,--quiet", texts.quiet, "Log errors only");
    app.add_option(kTakeOver, texts.takeOver)->group("");  // by the daemon that is replaced
    app.add_flag("--counters", texts.counters, "Print the daemon's counters, and end");
    app.footer(commandline::kDashes);
    commandline::addCompletion(app, commandline::Dashes::Any);
}

std::optional<std::uint32_t> parseUser(const std::string& text) {
    const auto id = parseNumber<std::uint32_t>(text);
    return id ? id : platform::userId(text);
}

// Each of these returns an empty text, or the error.

std::string takeListen(const std::vector<std::string>& texts, Options& options) {
    options.listen.clear();
    for (const auto& text : texts) {
        if (std::string error = parseListen(text, options.listen.emplace_back()); !error.empty()) {
            return error;
        }
    }
    return {};
}

std::string takeNetworks(const std::vector<std::string>& texts, std::vector<Network>& networks) {
    for (const auto& text : texts) {
        const auto network = parseNetwork(text);
        if (!network) return "'" + text + "' is no network (a.b.c.d or a.b.c.d/n)";
        networks.push_back(*network);
    }
    return {};
}

// An option that has no effect is refused: it would seem to protect.
std::string takeAdmission(const Texts& texts, Options& options) {
    std::string error = takeNetworks(texts.networks, options.admission.networks);
    if (!error.empty()) return error;
    for (const auto& text : texts.users) {
        const auto user = parseUser(text);
        if (!user) return "'" + text + "' is no user of this system";
        options.admission.users.push_back(*user);
    }
    const auto unixSockets = std::ranges::count_if(options.listen, &ListenAddress::isUnix);
    if (!texts.users.empty() && unixSockets == 0) {
        return "-allow-user is for unix sockets, and no -listen names one (unix:/path)";
    }
    if (!texts.networks.empty() && unixSockets == std::ssize(options.listen)) {
        return "-allow is for TCP, and every -listen names a unix socket";
    }
    return {};
}

std::string takeRecorder(const Texts& texts, Recorder::Settings& recorder) {
    if (!texts.recorder) {
        return texts.recorderFile.empty() ? ""
                                          : "-recorder-file is for -recorder, which is missing";
    }
    const auto size = parseBytes(*texts.recorder);
    if (!size || *size < kLeastRecorder || *size > recording::kMostCapacity) {
        return "'" + *texts.recorder + "' is no size of a recording (64k to 4G)";
    }
    const auto bytes = parseBytes(texts.recorderBytes);
    if (!bytes) return "'" + texts.recorderBytes + "' is no number of bytes (with k, M or G)";
    recorder = {*size, std::min(*bytes, *size / kLeastKept), texts.recorderFile};
    return {};
}

std::string evaluate(const Texts& texts, Options& options) {
    if (std::string error = takeListen(texts.listen, options); !error.empty()) return error;
    if (std::string error = takeAdmission(texts, options); !error.empty()) return error;
    if (std::string error = takeNetworks(texts.statusFor, options.statusFor); !error.empty()) {
        return error;
    }
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
    options.takeOver = texts.takeOver;
    if (std::string error = takeRecorder(texts, options.recorder); !error.empty()) return error;
    if (texts.verbose > 0) options.logLevel = platform::LogLevel::Debug;
    if (texts.quiet) options.logLevel = platform::LogLevel::Error;
    return {};
}

}  // namespace

std::string parseListen(const std::string& text, ListenAddress& address) {
    if (const auto path = wire::unixPathOf(text)) {
        std::string problem = wire::problemWithUnixPath(*path);
        if (!problem.empty()) return "'" + text + "': " + problem;
        address.path = *path;
        return {};
    }
    std::string shape = "'" + text + "' is no listen address (" + wire::kDaemonForms + ')';
    constexpr std::string_view kScheme = "tcp:";
    if (!text.starts_with(kScheme)) return shape;
    const std::string rest = text.substr(kScheme.size());
    const auto colon = rest.rfind(':');
    const auto port =
        parseNumber<std::uint16_t>(colon == std::string::npos ? rest : rest.substr(colon + 1));
    if (!port || colon == 0) return shape;
    address.endpoint = {platform::kLoopbackAddress, *port};
    if (colon == std::string::npos) return {};
    const std::string host = rest.substr(0, colon);
    const auto resolved = platform::resolveHost(host);
    if (!resolved) return "cannot resolve host '" + host + "'";
    address.endpoint.address = *resolved;
    return {};
}

std::optional<Network> parseNetwork(const std::string& text) {
    constexpr unsigned kBits = 32;
    const auto slash = text.find('/');
    const auto address = platform::parseDottedAddress(text.substr(0, slash));
    std::optional<unsigned> bits = kBits;
    if (slash != std::string::npos) bits = parseNumber<unsigned>(text.substr(slash + 1));
    if (!address || !bits || *bits > kBits) return std::nullopt;
    const auto mask = static_cast<std::uint32_t>(~0ULL << (kBits - *bits));
    return Network{*address, mask};
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
    result.options.program = programOf(argc, argv);
    result.exitStatus = commandline::parse(app, argc, argv);
    if (result.exitStatus) return result;
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
