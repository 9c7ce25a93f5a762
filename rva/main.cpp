#include "platform/Signals.h"
#include "rva/Agent.h"
#include "rva/Options.h"
#include "tools/bus/Program.h"

/// `rva`: reads the command line, joins the bus, and serves on the loopback until SIGTERM or
/// SIGINT. Exit status 0; 1 without a daemon or a port; 2 for an invalid command line.
int main(int argc, char** argv) {
    // It keeps running when its terminal is closed.
    kvx::platform::ignoreSignal(kvx::platform::signal_number::hangup());
    return kvx::bus::runProgram([&] {
        const auto commandLine = kvx::rva::parseCommandLine(argc, argv);
        return commandLine.exitStatus ? *commandLine.exitStatus
                                      : kvx::rva::run(commandLine.options);
    });
}
