#pragma once

#include <string>
#include <tl/expected.hpp>
#include <utility>

namespace kvx {

/// Why a call of this room failed.
enum class Errc {
    InvalidArgument = 1,  ///< nothing was done; the text says which argument
    NoDaemon,             ///< the bus could not be reached
    Lost,                 ///< the connection to the bus was lost meanwhile
    TimedOut,             ///< nobody answered in time
    Partial,              ///< an answer stopped before its end
    MixedAnswers,         ///< the packets of an answer are not 1 to N, each once
    Refused,              ///< the service answered with an error
    QueueFull,            ///< as much waits to be sent as may wait
    NoMemory,
    Ended,  ///< the client or service has ended
    Busy,   ///< another client or service of this process has the loop
};

/// The same in words: "timed out".
constexpr const char* textOf(Errc code) {
    switch (code) {
        case Errc::InvalidArgument:
            return "invalid argument";
        case Errc::NoDaemon:
            return "no daemon";
        case Errc::Lost:
            return "connection lost";
        case Errc::TimedOut:
            return "timed out";
        case Errc::Partial:
            return "partial answer";
        case Errc::MixedAnswers:
            return "mixed answers";
        case Errc::Refused:
            return "refused";
        case Errc::QueueFull:
            return "queue full";
        case Errc::NoMemory:
            return "out of memory";
        case Errc::Ended:
            return "ended";
        case Errc::Busy:
            return "busy";
    }
    return "unknown error";
}

struct Error {
    Errc code = Errc::InvalidArgument;
    std::string text;   ///< the particulars; may be empty
    std::string tried;  ///< what was being done: "query Status"

    /// All three in one line: "query Status: timed out: no packet within 8 s".
    [[nodiscard]] std::string message() const {
        std::string line = tried.empty() ? std::string() : tried + ": ";
        line += textOf(code);
        return text.empty() ? line : line + ": " + text;
    }
};

/// What a call returns that may fail. Nothing of this room throws.
template <class T = void>
using Result = tl::expected<T, Error>;

}  // namespace kvx
