#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/bus/Connection.h"
#include "tools/bus/Program.h"

namespace kvx::tool {

// Exit statuses of every subcommand.
using bus::kFailure;
using bus::kSuccess;
using bus::kUsage;

/// What every subcommand takes: where the bus is, and how to print.
struct Connection : bus::Connection {
    bool json = false;
};

struct ListenOptions {
    Connection connection;
    std::vector<std::string> subjects;
    std::uint64_t count = 0;  ///< leave after so many messages; 0 for never
};

/// What a message is made of: `name[:type]=value` fields, or a whole payload from standard input.
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

enum class RowFormat { Table, Json, Csv };

struct QueryOptions {
    Connection connection;
    std::string service;
    std::string text;
    RowFormat format = RowFormat::Table;
    bool quiet = false;  ///< no rows, only what they came to
    double timeoutSeconds = 8;
};

struct SnoopOptions {
    Connection connection;
    std::string service;
    std::string table;        ///< rows of this table only; empty for all
    std::uint64_t count = 0;  ///< leave after so many rows; 0 for never
};

struct ServicesOptions {
    Connection connection;
    double waitSeconds = 11;  ///< a beat interval and a little more
    bool watch = false;
};

struct BenchOptions {
    Connection connection;
    std::uint64_t messages = 100000;
    std::uint64_t requests = 5000;
    std::uint32_t bytes = 128;
};

}  // namespace kvx::tool
