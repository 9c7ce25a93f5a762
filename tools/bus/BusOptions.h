#pragma once

#include <string>

#include "mom/mom.h"

namespace kvx::bus {

/// The address of the bus, and options of its use.
struct BusOptions : DaemonAddress {
    std::string domain;    ///< as given; empty when not given
    bool verbose = false;  ///< report the connection on standard error

    /// The domain for operations that always qualify.
    std::string domainOrDefault() const { return domain.empty() ? "DEFAULT" : domain; }
};

/// The error in `text` as a part of a `BusOptions`, or an empty text.
[[nodiscard]] inline std::string problemWithPart(const std::string& text) {
    const bool bad = text.find_first_of("\"'\n\\") != std::string::npos;
    return bad ? "quotes, backslashes and line ends have no place here" : std::string();
}

}  // namespace kvx::bus
