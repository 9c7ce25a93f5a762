#include "tools/bus/ConfigurationOverlay.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "mom/mom.h"
#include "mom/net/VekText.h"
#include "tools/bus/Complain.h"

namespace kvx::bus {

namespace {

constexpr const char* kHomeVariable = "KVX_HOME";
constexpr const char* kFile = "/etc/Calvorine.rvd.cfg";

void removeDirectory(const std::string& directory) {
    if (directory.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

// One item of the configuration: the option, else what the configuration file says.
void writeItem(std::ostream& out, const char* name, const std::string& option,
               const CVekAtom* configured, bool& first) {
    const std::string value =
        option.empty() && configured != nullptr ? configured->RAString() : option;
    if (value.empty()) return;
    out << (first ? " " : ", ") << '"' << name << "\" = \"" << value << '"';
    first = false;
}

}  // namespace

std::string problemWithPart(const std::string& text) {
    const bool bad = text.find_first_of("\"'\n\\") != std::string::npos;
    return bad ? "quotes, backslashes and line ends have no place here" : std::string();
}

ConfigurationOverlay::ConfigurationOverlay(const Connection& connection) {
    if (connection.service.empty() && connection.network.empty() && connection.daemon.empty()) {
        return;
    }
    std::error_code error;
    std::string pattern = (std::filesystem::temp_directory_path(error) / "kvx-XXXXXX").string();
    if (!error && mkdtemp(pattern.data()) != nullptr) directory_ = pattern;
    // Connecting takes seconds when the daemon is away, so somebody may well lose patience.
    cleanUp_.emplace([directory = directory_] { removeDirectory(directory); });
    inEffect_ = !directory_.empty() && write(connection);
    if (!inEffect_) {
        complain("cannot write a temporary file for the options about the bus");
        return;
    }
    if (const char* const before = std::getenv(kHomeVariable)) homeBefore_ = before;
    setenv(kHomeVariable, directory_.c_str(), 1);
}

bool ConfigurationOverlay::write(const Connection& connection) const {
    CVekRvdCfgParser configured;
    const kvx::Text file(RvdCfgFileName());
    configured.RRCPParseFromFilename(file.get());
    std::error_code ignored;
    std::filesystem::create_directory(directory_ + "/etc", ignored);
    std::ofstream out(directory_ + kFile);
    bool first = true;
    out << "rendezvous session = {";
    writeItem(out, "service", connection.service, configured.RRCPGetService(), first);
    writeItem(out, "network", connection.network, configured.RRCPGetNetwork(), first);
    writeItem(out, "daemon", connection.daemon, configured.RRCPGetDaemon(), first);
    writeItem(out, "rva", "", configured.RRCPGetRVAPort(), first);
    out << " };\n" << std::flush;
    return out.good();
}

ConfigurationOverlay::~ConfigurationOverlay() {
    if (directory_.empty()) return;
    removeDirectory(directory_);
    if (!inEffect_) return;
    if (homeBefore_) {
        setenv(kHomeVariable, homeBefore_->c_str(), 1);
    } else {
        unsetenv(kHomeVariable);
    }
}

}  // namespace kvx::bus
