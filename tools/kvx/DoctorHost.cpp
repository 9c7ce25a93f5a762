// The checks of this host, without the bus.

#include "tools/kvx/Examination.h"

#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <system_error>
#include <utility>

#include "mom/mom.h"
#include "platform/Diagnosis.h"
#include "platform/Memory.h"
#include "platform/Process.h"
#include "rv/error/rvCodes.h"
#include "rv/error/rvErrors.h"
#include "rv/wire/Limits.h"
#include "tools/kvx/Overheard.h"
#include "tools/kvx/Table.h"

namespace kvx::tool {

namespace {

constexpr std::uint64_t kFewDescriptors = 1'024;
constexpr std::uint64_t kBacklog = 511;               // connections that rvd lets wait
constexpr std::uint64_t kSmallBuffer = 256 * 1'024;   // bytes
constexpr std::uint64_t kLittleMemory = 256U << 20U;  // bytes
constexpr const char* kConfigurationRule =
    "set KVX_HOME to the directory that has etc/Calvorine.rvd.cfg";

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool isDirectory(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_directory(path, error);
}

void warnOfUnknownKeys(Examination& examination, const std::string& file, const std::string& told) {
    static const std::regex line("(.*) not a valid service");
    for (std::sregex_iterator one(told.begin(), told.end(), line), end; one != end; ++one) {
        examination.warn(fmt::format("{}: the key '{}' is unknown and ignored", file, one->str(1)),
                         "use service, network, daemon or rva");
    }
}

// The value that counts, and where it comes from.
std::string choose(std::string& value, const CVekAtom* inFile, const char* otherwise) {
    const char* const text = inFile != nullptr ? inFile->RAString() : nullptr;
    const char* origin = "as given";
    if (value.empty()) {
        origin = text != nullptr ? "of the file" : "by default";
        value = text != nullptr && *text != '\0' ? text : otherwise;
    }
    return fmt::format("'{}' {}", value, origin);
}

void report(Examination& examination, const std::string& file, CVekRvdCfgParser& parser,
            bool isThere) {
    DaemonAddress& address = examination.address;
    const std::string daemon = choose(address.daemon, parser.RRCPGetDaemon(), wire::kDefaultDaemon);
    const std::string service =
        choose(address.service, parser.RRCPGetService(), wire::kDefaultService);
    const std::string network = choose(address.network, parser.RRCPGetNetwork(), "");
    if (const CVekAtom* const port = parser.RRCPGetRVAPort()) {
        examination.agentPort = Text(port->RAStrRep()).get();
    }
    examination.ok(fmt::format("{} {}: daemon {}, service {}, network {}", file,
                               isThere ? "is read" : "is not there", daemon, service, network));
}

void checkSetting(Examination& examination, const std::string& name, std::uint64_t least,
                  const char* why) {
    const auto value = platform::kernelSetting(name);
    if (!value || *value >= least) return;
    examination.warn(
        fmt::format("the kernel's {} is {}: {}", name, *value, why),
        fmt::format("sysctl -w {}=... of at least {}, and the same in /etc/sysctl.d", name, least));
}

}  // namespace

const char* kvxVersion() {
    return KVX_VERSION;
}

void checkEnvironment(Examination& examination) {
    const std::string home = variable("KVX_HOME");
    const std::string used = CVekEnv().REHome();
    if (!isDirectory(used)) {
        examination.warn(fmt::format("{} is {}, which is no directory: no configuration file",
                                     home.empty() ? "the installation's prefix" : "KVX_HOME", used),
                         kConfigurationRule);
    } else {
        examination.ok(
            home.empty()
                ? fmt::format("KVX_HOME is not set: {}, the installation's prefix, counts", used)
                : "KVX_HOME is " + home);
    }
    const std::string programs = variable("VEK_HOME");
    if (!programs.empty() && !isDirectory(programs + "/bin")) {
        examination.warn("VEK_HOME is " + programs + ", which has no bin",
                         "set it to where bin/rvd and bin/rva are, or unset it");
    }
    if (!examination.startsDaemons) {
        examination.ok("KVX_START_DAEMON is 0: processes start no daemon by themselves");
    }
}

void checkConfiguration(Examination& examination) {
    const Text name(RvdCfgFileName());
    const std::string file = name.get();
    CVekRvdCfgParser parser;
    int result = kOk;
    std::string told;
    {
        const Overheard overheard;
        result = parser.RRCPParseFromFilename(name.get());
        told = overheard.text();
    }
    std::error_code error;
    const bool isThere = std::filesystem::exists(file, error) || error;
    if (result == kFileUnusable && isThere) {
        examination.fail(file + " is there, but cannot be read", "correct its permissions");
    }
    const std::string mistake = parser.RRCPGetError();
    if (!mistake.empty() || result == kParserGaveUp) {
        examination.fail(mistake + "; the block that has it is left out", "correct that line");
    }
    warnOfUnknownKeys(examination, file, told);
    report(examination, file, parser, isThere);
}

void checkLimits(Examination& examination) {
    const auto descriptors = platform::descriptorLimits();
    const std::string limits =
        fmt::format("{} descriptors, up to {} for rvd", descriptors.soft, descriptors.hard);
    if (descriptors.hard < kFewDescriptors) {
        examination.warn(limits + ": each session takes one",
                         "raise 'ulimit -n', or LimitNOFILE of the unit");
    } else {
        examination.ok(limits);
    }
    const std::uint64_t memory = platform::availableMemoryBytes();
    const std::string room = fmt::format(
        "{} of memory may be used, half of it by rvd for its "
        "sessions unless -memory says otherwise",
        bytesText(static_cast<double>(memory)));
    if (memory != 0 && memory < kLittleMemory) {
        examination.warn(room, "raise the limit of the control group or 'ulimit -v'");
    } else if (memory != 0) {
        examination.ok(room);
    }
    checkSetting(examination, "net/core/somaxconn", kBacklog,
                 "many clients that connect at the same time may be turned away");
    const char* const slow = "a fast stream waits for its reader more often";
    checkSetting(examination, "net/ipv4/tcp_rmem", kSmallBuffer, slow);
    checkSetting(examination, "net/ipv4/tcp_wmem", kSmallBuffer, slow);
}

void checkClocks(Examination& examination) {
    const std::string source = platform::clockSource();
    if (source == "jiffies") {
        examination.warn("the monotonic clock is that of the timer interrupt: times are coarse",
                         "choose another one in the kernel's clocksource0");
    } else {
        examination.ok("the monotonic clock is " + (source.empty() ? "of unknown source" : source));
    }
    const auto isSynchronised = platform::isWallClockSynchronised();
    if (!isSynchronised) {
        examination.ok("the kernel does not say whether the wall clock is synchronised");
    } else if (*isSynchronised) {
        examination.ok("the wall clock is synchronised");
    } else {
        examination.warn(
            "the wall clock is not synchronised: logs of hosts do not agree, and of a "
            "group's members that start anew another one may come first",
            "run a time service: systemd-timesyncd or chrony");
    }
}

void checkVersions(Examination& examination) {
    const std::string client =
        fmt::format("{}.{}.{}", kClientVersion[0], kClientVersion[1], kClientVersion[2]);
    const std::string program = platform::programDirectory();
    const std::string library =
        platform::fileOfCode(reinterpret_cast<const void*>(&rv_VersionText));
    const std::string prefix = program.substr(0, program.rfind('/') + 1);
    const std::string text = fmt::format("kvx {} in {}, client {} of {}", KVX_VERSION, program,
                                         rv_VersionText(), library);
    if (client != rv_VersionText()) {
        examination.fail(text + ", made for client " + client,
                         "install program and libraries of one version");
    } else if (!library.starts_with(prefix)) {
        examination.warn(text + ": of two installations",
                         "look at LD_LIBRARY_PATH and PATH; keep one installation");
    } else {
        examination.ok(text);
    }
}

}  // namespace kvx::tool
