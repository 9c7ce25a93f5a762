#pragma once

#include "foundation/ErrorCodes.h"

/// The results of the middleware's operations and the codes of its error reports; those of the
/// foundation are in `ErrorCodes.h`. An operation that returns `int` returns `kvx::kOk` for
/// success.
namespace kvx {

// --- Results ---------------------------------------------------------------------------------

inline constexpr int kNotCreated = -220370;        // the bus refused to make an object
inline constexpr int kNoAnswer = -220371;          // the main thread did not answer a request
inline constexpr int kIllegalFrequency = -220383;  // a poll with a frequency below 1
inline constexpr int kOffMainThread = -220425;     // called on another thread than the main thread
inline constexpr int kNoHostName = -220463;        // the host has no name
inline constexpr int kBadPacket = -220494;         // a transport packet with a defect
inline constexpr int kNoListener = -220542;        // no listener could be made for a service
inline constexpr int kNoSession = -220544;         // the net has no session
inline constexpr int kNotSent = -220545;           // the bus refused a send or a request
inline constexpr int kParserGaveUp = -220551;      // a configuration text could not be parsed

// --- Reported only ---------------------------------------------------------------------------

inline constexpr int kBusError = -220379;        // an error advisory of the bus
inline constexpr int kBusWarning = -220380;      // a warning advisory of the bus
inline constexpr int kUnknownRequest = -220382;  // a request of an unknown type
inline constexpr int kInvalidRequest = -220417;  // a request with a missing argument
inline constexpr int kUnknownState = -220432;    // a blocked worker in an unknown state
inline constexpr int kIoTypeChosen = -220462;    // a second type of I/O handler
inline constexpr int kNotRegistered = -220536;   // no handler for a signal

}  // namespace kvx
