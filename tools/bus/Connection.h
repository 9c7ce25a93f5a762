#pragma once

#include <string>

namespace kvx::bus {

/// Where the bus is. Empty texts leave the choice to the daemon configuration file.
struct Connection {
    std::string service;
    std::string network;
    std::string daemon;
    std::string domain;    ///< as given; empty when not given
    bool verbose = false;  ///< tell on standard error what is connected

    /// The domain for operations that always qualify.
    std::string domainOrDefault() const { return domain.empty() ? "DEFAULT" : domain; }
};

/// What is wrong with `text` as a part of a `Connection`, or an empty text: a quote, a backslash or
/// a line end would change the meaning of the configuration that it goes into.
[[nodiscard]] std::string problemWithPart(const std::string& text);

}  // namespace kvx::bus
