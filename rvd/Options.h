#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/Log.h"

namespace kvx::rvd {

inline constexpr std::uint64_t kDefaultQueueLimit = 64ULL << 20U;  ///< bytes per session

/// The options of the command line. Addresses are in host byte order.
struct Options {
    std::uint32_t listenAddress = 0;
    std::uint16_t listenPort = 0;              ///< 0 takes a free one
    std::optional<std::uint32_t> hostAddress;  ///< reported to local clients as their address
    std::uint64_t queueLimit = kDefaultQueueLimit;
    std::optional<std::uint64_t> memoryLimit;  ///< bytes of all sessions; without it half of what
                                               ///< the process may use
    platform::LogLevel logLevel = platform::LogLevel::Info;
    /// Of a match, between two looks at the clock; not on the command line.
    std::size_t stepsAtOnce = 256;
};

/// The result of parsing a command line: options to run with, or the exit status to end with (0
/// after `--help`, `--version` and `--counters`, 1 when they could not be printed, 2 for an invalid
/// command line). All output has been printed.
struct CommandLine {
    Options options;
    std::optional<int> exitStatus;
};

[[nodiscard]] CommandLine parseCommandLine(int argc, const char* const* argv);

/// Parses "tcp:port" or "tcp:host:port" into `options`; without a host the loopback. Returns an
/// empty text, or the error.
[[nodiscard]] std::string parseListen(const std::string& text, Options& options);

/// Parses a number of bytes with an optional k, M or G (1024, 1024^2, 1024^3); nothing when invalid
/// or 0.
[[nodiscard]] std::optional<std::uint64_t> parseBytes(const std::string& text);

}  // namespace kvx::rvd
