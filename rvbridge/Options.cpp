#include "rvbridge/Options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <optional>
#include <utility>

#include "commandline/Completion.h"
#include "commandline/Parse.h"
#include "foundation/ErrorCodes.h"
#include "mom/config/CVekRvdCfgParser.h"
#include "mom/config/ReadConfiguration.h"
#include "platform/CommandLine.h"
#include "platform/Socket.h"
#include "platform/Text.h"
#include "rv/wire/DaemonText.h"
#include "rv/wire/Limits.h"

namespace kvx::bridge {

namespace {

constexpr const char* kProgram = "rvbridge";
constexpr std::size_t kLongestHost = 64;          // bytes
constexpr std::size_t kMostCredentials = 65'536;  // bytes

struct Texts {
    std::vector<std::string> engines;
    std::vector<std::string> spaces;
    std::vector<std::string> exports;
    std::vector<std::string> imports;
    DaemonAddress address;
    std::string host;
    std::string configuration;
};

void describe(CLI::App& app, Texts& texts, Options& options) {
    app.set_version_flag("--version", std::string("rvbridge ") + KVX_VERSION);
    app.add_option("--engine", texts.engines, "NATS servers: nats://host:port, comma separated")
        ->required()
        ->delimiter(',')
        ->allow_extra_args(false);
    app.add_option("--daemon", texts.address.daemon,
                   std::string("The daemon of this host, ") + wire::kDaemonForms +
                       "; default: the configuration file");
    app.add_option("--service", texts.address.service, "The space to join (with -network)");
    app.add_option("--network", texts.address.network, "The space to join (with -service)");
    app.add_option("--space", texts.spaces, "SERVICE:NETWORK, once for each space to join")
        ->allow_extra_args(false)
        ->excludes("--service")
        ->excludes("--network");
    app.add_option("--host", texts.host, "This host's name; default: as the system calls it");
    app.add_option("--export", texts.exports, "Only messages on this subject leave this host")
        ->allow_extra_args(false);
    app.add_option("--import", texts.imports, "Only messages on this subject come to this host")
        ->allow_extra_args(false);
    app.add_option("--credentials", options.engine.credentials, "NATS's own file of credentials")
        ->type_name("FILE");
    app.add_option("--ca", options.engine.ca, "File of the certificates to trust")
        ->type_name("FILE");
    CLI::Option* const certificate =
        app.add_option("--cert", options.engine.certificate, "File of this bridge's certificate")
            ->type_name("FILE");
    CLI::Option* const key = app.add_option("--key", options.engine.key, "File of its key")
                                 ->needs(certificate)
                                 ->type_name("FILE");
    certificate->needs(key);
    app.add_option("--config", texts.configuration,
                   "The daemon configuration file; default: $KVX_HOME's")
        ->type_name("FILE");
    app.add_flag("-v,--verbose", options.isVerbose, "Log every subject that comes and goes");
    app.footer(commandline::kDashes);
    commandline::addCompletion(app, commandline::Dashes::Any);
}

// nats://[user:password@]host[:port]
bool isPort(std::string_view text) {
    unsigned port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port <= 65'535;
}

bool isServer(const std::string& url) {
    if (!url.starts_with("nats://") && !url.starts_with("tls://")) return false;
    const auto secrets = url.rfind('@');
    const std::string place =
        url.substr(secrets == std::string::npos ? url.find("//") + 2 : secrets + 1);
    const auto colon = place.rfind(':');
    if (colon == std::string::npos || place.ends_with(']')) return !place.empty();
    return colon > 0 && isPort(std::string_view(place).substr(colon + 1));
}

// The following return an empty text, or the error.

std::string takeSubjects(const std::vector<std::string>& texts, const char* option,
                         std::vector<Subject>& subjects) {
    for (const auto& text : texts) {
        auto subject = Subject::fromText(text.c_str());
        if (!subject) return std::string(option) + ": '" + text + "' is no subject";
        subjects.push_back(std::move(*subject));
    }
    return {};
}

std::string takeSpaces(const std::vector<std::string>& texts, std::vector<SpaceName>& spaces) {
    for (const auto& text : texts) {
        const auto colon = text.find(':');
        if (colon == std::string::npos) return "-space: '" + text + "' is no SERVICE:NETWORK";
        const std::string service = colon == 0 ? wire::kDefaultService : text.substr(0, colon);
        const SpaceName space{service, text.substr(colon + 1)};
        if (std::ranges::find(spaces, space) != spaces.end()) {
            return "-space: '" + text + "' is named twice";
        }
        spaces.push_back(space);
    }
    return {};
}

std::string takeHost(const std::string& text, std::string& host) {
    host = text.empty() ? platform::localHostName().value_or("") : text;
    if (host.empty()) return "this host has no name: use -host";
    if (host.size() > kLongestHost || printable(host) != host) {
        return "'" + host + "' is no name of a host (up to 64 printable characters)";
    }
    return {};
}

// The first `kMostCredentials` bytes; nothing when the file cannot be read.
std::optional<std::string> headOf(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::string text(kMostCredentials, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!in.is_open() || in.bad()) return std::nullopt;
    text.resize(static_cast<std::size_t>(in.gcount()));
    return text;
}

std::string takeFiles(const EngineSettings& engine) {
    for (const auto& [option, file] :
         {std::pair("-credentials", engine.credentials), std::pair("-ca", engine.ca),
          std::pair("-cert", engine.certificate), std::pair("-key", engine.key)}) {
        if (!file.empty() && !headOf(file))
            return std::string(option) + ": cannot read '" + file + "'";
    }
    if (engine.credentials.empty()) return wrongIn(engine);
    const auto text = headOf(engine.credentials);
    for (const char* block : {"BEGIN NATS USER JWT", "BEGIN USER NKEY SEED"}) {
        if (text->find(block) == std::string::npos) {
            return "-credentials: '" + engine.credentials + "' has no " + block;
        }
    }
    return wrongIn(engine);
}

std::string problemWithDaemon(const std::string& daemon) {
    if (const auto path = wire::unixPathOf(daemon)) return wire::problemWithUnixPath(*path);
    const std::string_view port = std::string_view(daemon).substr(daemon.rfind(':') + 1);
    if (daemon.starts_with("tcp:") && isPort(port)) return {};
    return "'" + daemon + "' is no daemon (" + wire::kDaemonForms + ')';
}

// While it exists, what the libraries write to `std::cout` is dropped.
class Muted {
  public:
    Muted() : output_(std::cout.rdbuf(nullptr)) {}
    ~Muted() { std::cout.rdbuf(output_); }
    Muted(const Muted&) = delete;
    Muted& operator=(const Muted&) = delete;

  private:
    std::streambuf* output_;
};

std::string takeAddress(const Texts& texts, Options& options) {
    const Muted muted;  // the parser names no file: its error is told with its file elsewhere
    CVekRvdCfgParser parser;
    DaemonAddress address = texts.address;
    const auto fill = [](std::string& value, const char* configured) {
        if (value.empty() && configured != nullptr) value = configured;
    };
    if (texts.configuration.empty()) {
        const SessionAddress found = readConfiguration(parser, texts.address);
        fill(address.service, found.service);
        fill(address.network, found.network);
        fill(address.daemon, found.daemon);
        options.misread = parser.RRCPGetError();
    } else {
        std::string name = texts.configuration;
        const int result = parser.RRCPParseFromFilename(name.data());
        const std::string why = parser.RRCPGetError();
        if (!why.empty()) return "-config: " + why;
        if (result != kOk) return "-config: " + name + ": cannot be read";
        const auto textOf = [](CVekAtom* atom) {
            return atom == nullptr ? nullptr : atom->RAString();
        };
        fill(address.service, textOf(parser.RRCPGetService()));
        fill(address.network, textOf(parser.RRCPGetNetwork()));
        fill(address.daemon, textOf(parser.RRCPGetDaemon()));
    }
    fill(address.daemon, wire::kDefaultDaemon);
    if (std::string wrong = problemWithDaemon(address.daemon); !wrong.empty()) return wrong;
    options.daemon = address.daemon;
    if (options.spaces.empty()) options.spaces.push_back({address.service, address.network});
    return {};
}

std::string evaluate(const Texts& texts, Options& options) {
    for (const auto& url : texts.engines) {
        if (!isServer(url)) {
            return "-engine: '" + withoutSecrets(url) + "' is no nats://host:port";
        }
    }
    options.engine.urls = texts.engines;
    std::string error = takeHost(texts.host, options.host);
    if (error.empty()) error = takeSpaces(texts.spaces, options.spaces);
    if (error.empty()) error = takeSubjects(texts.exports, "-export", options.exports);
    if (error.empty()) error = takeSubjects(texts.imports, "-import", options.imports);
    if (error.empty()) error = takeFiles(options.engine);
    if (error.empty()) error = takeAddress(texts, options);
    options.engine.name = "rvbridge " + options.host;
    return error;
}

}  // namespace

std::string withoutSecrets(const std::string& text) {
    const auto at = text.rfind('@');
    if (at == std::string::npos) return text;
    const auto scheme = text.find("://");
    return text.substr(0, scheme < at ? scheme + 3 : 0) + "..." + text.substr(at);
}

CommandLine parseCommandLine(int argc, const char* const* argv) {
    CLI::App app("Joins the daemon of this host with those of others, over NATS.", "rvbridge");
    Texts texts;
    CommandLine result;
    describe(app, texts, result.options);
    result.exitStatus = commandline::parse(app, argc, argv, withoutSecrets);
    if (result.exitStatus) return result;
    if (const std::string error = evaluate(texts, result.options); !error.empty()) {
        result.exitStatus = platform::refuse(kProgram, error);
    }
    return result;
}

}  // namespace kvx::bridge
