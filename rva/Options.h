#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/bus/BusOptions.h"
#include "tools/bus/Program.h"

namespace kvx::rva {

using bus::kFailure;
using bus::kSuccess;
using bus::kUsage;

/// The port when neither the command line nor the configuration file has one.
inline constexpr std::uint16_t kDefaultPort = 7600;

/// The longest interval between two questions to the daemon.
inline constexpr unsigned kMostIntervalSeconds = 3600;

struct Options {
    bus::BusOptions connection;
    std::optional<std::uint16_t> port;  ///< empty: as in the configuration file
    unsigned intervalSeconds = 10;      ///< between questions to the daemon; 0: none are asked
};

/// The result of parsing a command line: options to run with, or the exit status to end with (0
/// after `-help` and `-version`, 2 for an invalid command line). All output has been printed.
struct CommandLine {
    Options options;
    std::optional<int> exitStatus;
};

/// Parses a command line as made by `CVekRvNet::RRNStartAgent`; the last value of a repeated option
/// counts. A flavour other than the system's is invalid.
[[nodiscard]] CommandLine parseCommandLine(int argc, const char* const* argv);

/// Parses a port as "7600", "tcp:7600" or with a loopback host, "tcp:127.0.0.1:7600". Returns an
/// empty text, or the error.
[[nodiscard]] std::string parseListen(const std::string& text, std::uint16_t& port);

}  // namespace kvx::rva
