// How the subcommands reach the bus. The network object takes service, network and daemon from the
// configuration file alone; options therefore become a configuration file that only this process
// sees.

#include "tools/kvx/Client.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "mom/net/VekText.h"

namespace kvx::tool {

namespace {

// The value in effect: the option, else what the configuration file says.
std::string effective(const std::string& option, const CVekAtom* configured) {
    if (!option.empty() || configured == nullptr) return option;
    return configured->RAString();
}

void writeItem(std::ostream& out, const char* name, const std::string& value, bool& first) {
    if (value.empty()) return;
    out << (first ? " " : ", ") << '"' << name << "\" = \"" << value << '"';
    first = false;
}

}  // namespace

ConfigurationOverlay::ConfigurationOverlay(const Connection& connection) {
    if (connection.service.empty() && connection.network.empty() && connection.daemon.empty()) {
        return;
    }
    std::string pattern = (std::filesystem::temp_directory_path() / "kvx-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        complain("cannot make a temporary directory; the options about the bus are not used");
        return;
    }
    directory_ = pattern;
    write(connection);
    setenv("KVX_HOME", directory_.c_str(), 1);
}

void ConfigurationOverlay::write(const Connection& connection) {
    CVekRvdCfgParser configured;
    const kvx::Text file(RvdCfgFileName());
    configured.RRCPParseFromFilename(file.get());
    std::filesystem::create_directory(directory_ + "/etc");
    std::ofstream out(directory_ + "/etc/Calvorine.rvd.cfg");
    bool first = true;
    out << "rendezvous session = {";
    writeItem(out, "service", effective(connection.service, configured.RRCPGetService()), first);
    writeItem(out, "network", effective(connection.network, configured.RRCPGetNetwork()), first);
    writeItem(out, "daemon", effective(connection.daemon, configured.RRCPGetDaemon()), first);
    out << " };\n";
}

ConfigurationOverlay::~ConfigurationOverlay() {
    if (directory_.empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

Client::Client(const Connection& connection, unsigned long latencyMs)
    : overlay_(connection),
      qualify_(!connection.domain.empty()),
      net_(latencyMs, connection.domainOrDefault().c_str()) {}

std::string Client::qualified(const std::string& subject) {
    if (!qualify_) return subject;
    const kvx::Text text(net_.RRNDomainSubj(subject.c_str()));
    return text ? text.get() : subject;
}

int Client::run(std::function<void()> whenRunning) {
    net_.whenRunning = std::move(whenRunning);
    net_.RRNDoIt();
    return exitStatus_;
}

void Client::leave(int exitStatus) {
    exitStatus_ = exitStatus;
    net_.RRNStopLoop();
}

void complain(const std::string& message) {
    fmt::print(stderr, "kvx: {}\n", message);
}

}  // namespace kvx::tool
