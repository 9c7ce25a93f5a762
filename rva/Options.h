#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/bus/Connection.h"
#include "tools/bus/Program.h"

namespace kvx::rva {

using bus::kFailure;
using bus::kSuccess;
using bus::kUsage;

/// Where the agent serves when neither the command line nor the configuration file says.
inline constexpr std::uint16_t kDefaultPort = 7600;

struct Options {
    bus::Connection connection;
    std::optional<std::uint16_t> port;  ///< nothing leaves it to the configuration file
};

/// The outcome of reading a command line: options to run with, or the exit status to end with (0
/// after `-help` and `-version`, 2 for an invalid command line). What is to be said about it
/// has been printed.
struct CommandLine {
    Options options;
    std::optional<int> exitStatus;
};

/// The command line is the one that `CVekRvNet::RRNStartAgent` makes; of an option that is given
/// twice the last value counts. A flavour other than the system's is invalid.
[[nodiscard]] CommandLine parseCommandLine(int argc, const char* const* argv);

/// A port as "7600", "tcp:7600" or with a loopback host, "tcp:127.0.0.1:7600". Returns an empty
/// text, or what is wrong with it.
[[nodiscard]] std::string parseListen(const std::string& text, std::uint16_t& port);

}  // namespace kvx::rva
