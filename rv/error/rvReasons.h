#pragma once

#include <cstdint>

/// Why messages are lost and connections end, with the fixed texts that advisories, logs and
/// reports have for it. The functions give "" for a value that is no enumerator.
namespace kvx {

/// Why the daemon dropped a copy from an open session's queue or ended the session, or where
/// messages were lost. One bit each.
enum class LossCause : std::uint8_t {
    SlowReader = 1,  ///< the session's own queue was full
    Memory = 2,      ///< all queues together were full
    TooLarge = 4,    ///< the message is larger than the session's whole queue
    Patterns = 8,    ///< the session's patterns cost a message too much
    Listens = 16,    ///< it has made more listens than one session may
    Link = 32        ///< between this host and another
};
inline constexpr std::uint8_t kLossCauseBits = 6;

[[nodiscard]] constexpr const char* textOf(LossCause cause) {
    switch (cause) {
        case LossCause::SlowReader:
            return "slow reader";
        case LossCause::Memory:
            return "daemon memory";
        case LossCause::TooLarge:
            return "message too large";
        case LossCause::Patterns:
            return "patterns take more than 1024 steps";
        case LossCause::Listens:
            return "more than 262144 listens";
        case LossCause::Link:
            return "link";
    }
    return "";
}

static_assert(*textOf(LossCause{1U << kLossCauseBits}) == '\0');

/// Why the daemon's connection to a client ends.
enum class CloseReason : std::uint8_t {
    PeerClosed,     ///< the peer sent its close notice
    BadGreeting,    ///< first word not zero, or an unsupported version
    BadParameters,  ///< no agreement on the queue
    BadFrame,       ///< the byte stream is not a sequence of messages
    NotAllowed,     ///< it may not be a session here
    NoInit,         ///< something other than an init message came first
    TooMuchAtOnce,  ///< too many bytes before the first init message
    TooManyListens,
    TooManyPatterns,  ///< they cost a message too much
    OutOfMemory,      ///< it held most of a full memory
    TimedOut,         ///< no init in time, or silence for too long
    ShuttingDown      ///< the daemon ends
};
inline constexpr std::uint8_t kCloseReasons = 12;

[[nodiscard]] constexpr const char* textOf(CloseReason reason) {
    switch (reason) {
        case CloseReason::PeerClosed:
            return "closed by the peer";
        case CloseReason::BadGreeting:
            return "bad greeting";
        case CloseReason::BadParameters:
            return "no agreement on the link's parameters";
        case CloseReason::BadFrame:
            return "not a stream of messages";
        case CloseReason::NotAllowed:
            return "not allowed by -allow or -allow-user";
        case CloseReason::NoInit:
            return "a message before the init message";
        case CloseReason::TooMuchAtOnce:
            return "too many bytes before the init message";
        case CloseReason::TooManyListens:
            return textOf(LossCause::Listens);
        case CloseReason::TooManyPatterns:
            return "its patterns take more than 1024 steps to match one message";
        case CloseReason::OutOfMemory:
            return "it held most of a full memory";
        case CloseReason::TimedOut:
            return "silent for too long";
        case CloseReason::ShuttingDown:
            return "the daemon ends";
    }
    return "";
}

static_assert(*textOf(CloseReason{kCloseReasons}) == '\0');

/// Why messages between two bridges were lost. The numbers are those of a mark's cause.
enum class BridgeLossCause : std::uint8_t {
    Engine = 0,       ///< no other cause is known
    EngineGone = 1,   ///< a bridge was not connected to the engine
    EngineSlow = 2,   ///< the engine dropped what a bridge did not take in time
    QueueFull = 3,    ///< a bridge's own queue
    PartMissing = 4,  ///< a large message, of which not all parts came
};
inline constexpr std::uint8_t kBridgeLossCauses = 5;

[[nodiscard]] constexpr const char* textOf(BridgeLossCause cause) {
    switch (cause) {
        case BridgeLossCause::Engine:
            return "engine";
        case BridgeLossCause::EngineGone:
            return "engine gone";
        case BridgeLossCause::EngineSlow:
            return "engine slow";
        case BridgeLossCause::QueueFull:
            return "queue full";
        case BridgeLossCause::PartMissing:
            return "part missing";
    }
    return "";
}
static_assert(*textOf(BridgeLossCause{kBridgeLossCauses}) == '\0');

}  // namespace kvx
