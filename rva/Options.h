#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Socket.h"
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

/// Where to serve.
struct ListenAddress {
    std::string host = "127.0.0.1";
    std::uint32_t address = platform::kLoopbackAddress;
    std::uint16_t port = kDefaultPort;

    [[nodiscard]] bool isLoopback() const { return address >> 24U == 127; }
};

struct Options {
    bus::BusOptions connection;
    std::optional<ListenAddress> listen;  ///< empty: as in the configuration file
    std::string tokenFile;                ///< empty: nobody needs a token
    std::vector<std::string> hosts;       ///< further names of this host
    unsigned intervalSeconds = 10;        ///< between questions to the daemon; 0: none are asked
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

/// Parses an address to listen on: "7600" or "tcp:7600" of the loopback, or with a host,
/// "tcp:0.0.0.0:7600". Returns an empty text, or the error.
[[nodiscard]] std::string parseListen(const std::string& text, ListenAddress& address);

/// Reads the token: the first line of the file. Returns as `parseListen`.
[[nodiscard]] std::string readToken(const std::string& file, std::string& token);

}  // namespace kvx::rva
