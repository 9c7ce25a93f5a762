#include <utility>

#include "platform/File.h"
#include "platform/Log.h"
#include "platform/Memory.h"
#include "platform/Signals.h"
#include "platform/Supervisor.h"
#include "rvd/Options.h"
#include "rvd/Server.h"

/// `rvd`: reads the command line, listens, prints one line on standard output, and serves until
/// SIGTERM or SIGINT. Exit status 0; 1 when it cannot listen, or print what it is asked for; 2 for
/// an invalid command line.
int main(int argc, char** argv) {
    // Otherwise a socket could get the descriptor of a closed stream, and the log.
    kvx::platform::reserveStandardStreams();
    // Writing to a closed pipe is an error, and so is writing more than a file may have.
    kvx::platform::ignoreSignal(kvx::platform::signal_number::brokenPipe());
    kvx::platform::ignoreSignal(kvx::platform::signal_number::fileSize());
    kvx::platform::returnLargeBlocks();
    const auto commandLine = kvx::rvd::parseCommandLine(argc, argv);
    if (commandLine.exitStatus) return *commandLine.exitStatus;

    kvx::platform::Log log(commandLine.options.logLevel);
    std::string wrong;
    auto passed = kvx::platform::takePassedSockets(wrong);
    if (!wrong.empty()) {
        log.error(wrong);
        return 1;
    }
    kvx::rvd::Server server(commandLine.options, log);
    if (commandLine.options.takeOver >= 0) {
        return server.takeOver(commandLine.options.takeOver) ? server.run() : 1;
    }
    if (!server.start(std::move(passed))) return 1;

    kvx::platform::tellReady();
    // It serves without that line too: a full disk must not stop the host's messages.
    const std::string error = kvx::platform::writeOutput("rvd ready on " + server.address() + '\n');
    if (!error.empty()) log.error("standard output: " + error);
    return server.run();
}
