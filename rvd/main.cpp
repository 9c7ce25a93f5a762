#include <cerrno>
#include <cstdio>
#include <iostream>
#include <system_error>

#include "platform/File.h"
#include "rvd/Log.h"
#include "rvd/Options.h"
#include "rvd/Server.h"

namespace {

// The exit status after printing: `status`, or 1 when the output failed.
int ended(int status) {
    errno = 0;
    if (std::cout.flush()) return status;
    const int reason = errno != 0 ? errno : EIO;
    std::cerr << "rvd: standard output: " << std::generic_category().message(reason) << '\n';
    return 1;
}

}  // namespace

/// `rvd`: reads the command line, listens, prints one line on standard output, and serves until
/// SIGTERM or SIGINT. Exit status 0; 1 when it cannot listen or print; 2 for an invalid command
/// line.
int main(int argc, char** argv) {
    // Otherwise a socket could get the descriptor of a closed stream, and the log.
    kvx::platform::reserveStandardStreams();
    const auto commandLine = kvx::rvd::parseCommandLine(argc, argv);
    if (commandLine.exitStatus) return ended(*commandLine.exitStatus);

    const kvx::rvd::Log log(commandLine.options.logLevel);
    kvx::rvd::Server server(commandLine.options, log);
    if (!server.start()) return 1;

    std::printf("rvd ready on %s\n", server.address().c_str());
    std::fflush(stdout);
    return server.run();
}
