#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kvx/ServiceName.h"
#include "tools/bus/BusOptions.h"
#include "tools/bus/Program.h"

namespace kvx::tool {

// Exit statuses of every subcommand.
using bus::kFailure;
using bus::kSuccess;
using bus::kUsage;

/// Options of every subcommand: the address of the bus, and the output.
struct Connection : bus::BusOptions {
    bool json = false;
};

struct ListenOptions {
    Connection connection;
    std::vector<std::string> subjects;
    std::uint64_t count = 0;  ///< leave after this many messages; 0 for never
};

/// The content of a message: `name[:type]=value` fields, or a whole payload from standard input.
struct Payload {
    std::vector<std::string> fields;
    bool opaque = false;  ///< standard input holds bytes, not a text
};

/// A message to publish.
struct MessageOptions {
    Connection connection;
    std::string subject;
    std::string reply;
    Payload payload;
};

struct SendOptions : MessageOptions {
    std::uint64_t repeat = 1;
};

struct RequestOptions : MessageOptions {
    double timeoutSeconds = 8;
};

enum class RowFormat { AsTable, AsJson, AsCsv };

struct QueryOptions {
    Connection connection;
    std::string service;
    std::string text;
    RowFormat format = RowFormat::AsTable;
    bool quiet = false;  ///< no rows, only the summary
    double timeoutSeconds = 8;
};

struct SnoopOptions {
    Connection connection;
    std::string service;
    std::string table;        ///< rows of this table only; empty for all
    std::uint64_t count = 0;  ///< leave after this many rows; 0 for never
};

struct FollowOptions {
    Connection connection;
    std::string service;
    std::string text;
    std::uint64_t count = 0;  ///< leave after this many changes; 0 for never
    double timeoutSeconds = 8;
};

struct ServicesOptions {
    Connection connection;
    double waitSeconds = 11;  ///< a little more than a beat interval
    bool watch = false;
};

struct HostsOptions {
    Connection connection;
    double timeoutSeconds = 3;
};

/// Of the commands that ask the daemon.
struct DaemonOptions {
    Connection connection;
    std::string subject;       ///< empty: all
    std::uint64_t limit = 20;  ///< of rows; 0 for all
    bool shapes = false;
    bool tree = false;
    double interval = 1;      ///< of `top`, in seconds
    std::uint64_t count = 0;  ///< of `top`: leave after this many updates; 0 for never
    double timeoutSeconds = 3;
};

struct LatencyOptions {
    Connection connection;
    std::string subject;
    double seconds = 10;  ///< 0: until a signal
    double timeoutSeconds = 3;
};

/// Of the commands that read a recording.
struct RecordingOptions {
    Connection connection;
    std::string file;
    std::string from;     ///< of `record`: what is copied; empty: what the daemon writes
    std::string subject;  ///< only what it covers; empty: all
    std::string space;    ///< only of this one, as "7500" or "7500;eth0"; empty: all
    double speed = 1;     ///< of `replay`, against that of the recording; 0: as fast as possible
    double timeoutSeconds = 3;
};

struct ExplainOptions {
    Connection connection;
    std::vector<std::string> words;
};

struct DoctorOptions {
    Connection connection;
    double timeoutSeconds = 3;
    double waitSeconds = 11;  ///< a little more than a beat interval
};

struct BenchOptions {
    Connection connection;
    std::uint64_t messages = 100000;
    std::uint64_t requests = 5000;
    std::uint32_t bytes = 128;
};

// One function per subcommand. They return the exit status and report errors on standard error. A
// failed write to standard output makes the program fail in `bus::runProgram`; a long run then ends
// early.

/// Prints messages as they arrive, until the count is reached or a signal ends the process.
int listen(const ListenOptions& options);

/// Publishes one message, or the same one several times.
int send(const SendOptions& options);

/// Publishes a request and prints the first answer.
int request(const RequestOptions& options);

/// Sends a query to a service and prints the rows, their number and the time.
int query(const QueryOptions& options);

/// Prints the rows that a service publishes as they change, until the count is reached or a signal
/// ends the process.
int snoop(const SnoopOptions& options);

/// Prints the rows of an answer and then their changes, until the count is reached or a signal ends
/// the process.
int follow(const FollowOptions& options);

/// Lists the services whose beats are heard, and those that answer queries; or watches the beats.
int services(const ServicesOptions& options);

/// Lists the hosts that are joined with this one, as its bridge knows them.
int hosts(const HostsOptions& options);

/// How the daemon is: version, limits, totals, rates, memory.
int status(const DaemonOptions& options);

/// Who is on the daemon, and how they keep up.
int sessions(const DaemonOptions& options);

/// The same, live, until a key or a signal ends it.
int top(const DaemonOptions& options);

/// The busiest subjects, as a list or a tree.
int subjects(const DaemonOptions& options);

/// Who would get a message on a subject, and by which listens.
int trace(const DaemonOptions& options);

/// Who holds up messages, since when, what was lost, and what to do.
int whySlow(const DaemonOptions& options);

/// Has the daemon replaced by the program that is installed now, without a session noticing.
int upgrade(const DaemonOptions& options);

/// How long messages on a subject are in the daemon: quantiles and a histogram.
int latency(const LatencyOptions& options);

/// Copies the messages that the daemon has recorded last, or those of a recording, into a new file.
int record(const RecordingOptions& options);

/// Prints the messages of a recording.
int dump(const RecordingOptions& options);

/// Sends the messages of a recording again, with their spacing.
int replay(const RecordingOptions& options);

/// Says why a code, an advisory or a line of a log comes, and what to do; lists all without words.
int explain(const ExplainOptions& options);

/// Looks at this host, its daemon and the bus, and says what to mend. Starts no daemon.
int doctor(const DoctorOptions& options);

/// Measures round trips and a stream through the daemon.
int bench(const BenchOptions& options);

/// The service of a name, nothing with a line on standard error when it is no name.
std::optional<ServiceName> serviceNamed(const std::string& name);

/// The same for a service that publishes changes.
std::optional<ServiceName> publisherNamed(const std::string& name);

/// Whether a command reports its progress on standard error: on a terminal, or with `--verbose`.
bool talks(const Connection& connection);

/// Reads the command line and runs its subcommand.
int runCommandLine(int argc, char** argv);

}  // namespace kvx::tool
