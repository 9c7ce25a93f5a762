#pragma once

#include "tools/kvx/Options.h"

namespace kvx::tool {

// One function a subcommand, each in a file of its own. They return the exit status, having told
// the user on standard error about whatever went wrong. What cannot be written to standard output
// makes the program fail in `bus::runProgram`; a long run leaves early then.

/// Prints messages as they arrive, until the count is reached or a signal ends the process.
int listen(const ListenOptions& options);

/// Publishes one message, or the same one several times.
int send(const SendOptions& options);

/// Publishes a request and prints the first answer.
int request(const RequestOptions& options);

/// Asks a service in its query language and prints the rows, their number and the time.
int query(const QueryOptions& options);

/// Prints the rows that a service publishes as they change, until the count is reached or a signal
/// ends the process.
int snoop(const SnoopOptions& options);

/// Lists the services whose beats are heard, and those that answer queries; or watches the beats.
int services(const ServicesOptions& options);

/// Measures round trips and a stream through the daemon.
int bench(const BenchOptions& options);

/// Whether a command tells on standard error what it is doing: to a person, or when asked to.
bool talks(const Connection& connection);

/// Reads the command line and runs the subcommand it names.
int runCommandLine(int argc, char** argv);

}  // namespace kvx::tool
