#include <cstdio>

#include "rvd/Log.h"
#include "rvd/Options.h"
#include "rvd/Server.h"

/// `rvd`: reads the command line, listens, says so in one line on standard output, and serves until
/// SIGTERM or SIGINT. Ends with 0; 1 when it cannot listen; 2 for a command line without sense.
int main(int argc, char** argv) {
    const auto commandLine = kvx::rvd::parseCommandLine(argc, argv);
    if (commandLine.exitStatus) return *commandLine.exitStatus;

    const kvx::rvd::Log log(commandLine.options.logLevel);
    kvx::rvd::Server server(commandLine.options, log);
    if (!server.start()) return 1;

    std::printf("rvd ready on %s\n", server.address().c_str());
    std::fflush(stdout);
    return server.run();
}
