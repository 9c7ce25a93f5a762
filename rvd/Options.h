#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/Socket.h"
#include "rvd/Admission.h"
#include "rvd/Recorder.h"

namespace kvx::rvd {

inline constexpr std::uint64_t kDefaultQueueLimit = 64ULL << 20U;  ///< bytes per session
/// With the descriptor of a channel to the daemon that is replaced; for its successor only.
inline constexpr const char* kTakeOver = "--take-over";

/// Where to accept: at a TCP address, or at a unix socket.
struct ListenAddress {
    platform::Endpoint endpoint{platform::kLoopbackAddress, 0};  ///< port 0 takes a free one
    std::string path{};                                          ///< of a unix socket, else empty
    bool isPassed = false;  ///< bound by the supervisor, whose file a unix socket is

    [[nodiscard]] bool isUnix() const { return !path.empty(); }
};

/// The options of the command line. Addresses are in host byte order.
struct Options {
    std::vector<ListenAddress> listen{ListenAddress()};  ///< at least one
    Admission admission;
    std::vector<Network> statusFor;            ///< other hosts that may ask for reports
    std::optional<std::uint32_t> hostAddress;  ///< reported to local clients as their address
    std::uint64_t queueLimit = kDefaultQueueLimit;
    std::optional<std::uint64_t> memoryLimit;  ///< bytes of all sessions; without it half of what
                                               ///< the process may use
    platform::Program program;                 ///< this one, with its options
    int takeOver = -1;  ///< the descriptor of the daemon to be replaced; -1: none
    Recorder::Settings recorder;
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

/// Parses "tcp:port", "tcp:host:port" or "unix:/path" into `address`; without a host the loopback.
/// Returns an empty text, or the error.
[[nodiscard]] std::string parseListen(const std::string& text, ListenAddress& address);

/// Parses "a.b.c.d" or, with the number of bits that must agree, "a.b.c.d/n"; nothing when invalid.
[[nodiscard]] std::optional<Network> parseNetwork(const std::string& text);

/// Parses a number of bytes with an optional k, M or G (1024, 1024^2, 1024^3); nothing when invalid
/// or 0.
[[nodiscard]] std::optional<std::uint64_t> parseBytes(const std::string& text);

}  // namespace kvx::rvd
