#include "rva/Agent.h"
#include "rva/Options.h"

/// `rva`: reads the command line, joins the bus, and tells on the loopback what it hears there
/// until SIGTERM or SIGINT. Ends with 0; 1 without a daemon or a port; 2 for a command line without
/// sense.
int main(int argc, char** argv) {
    const auto commandLine = kvx::rva::parseCommandLine(argc, argv);
    if (commandLine.exitStatus) return *commandLine.exitStatus;
    return kvx::rva::run(commandLine.options);
}
