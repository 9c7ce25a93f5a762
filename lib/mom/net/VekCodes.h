#pragma once

#include "foundation/CVekError.h"
#include "foundation/ErrorCodes.h"

/// The codes of the system's error catalogue that the network objects return or report, beside
/// those of the foundation.
namespace kvx {

inline constexpr int kNotCreated = -220370;      // the bus refused to make an object
inline constexpr int kNoAnswer = -220371;        // the main thread did not answer a request
inline constexpr int kBusError = -220379;        // an error advisory of the bus
inline constexpr int kBusWarning = -220380;      // a warning advisory of the bus
inline constexpr int kUnknownRequest = -220382;  // a request of an unknown type
inline constexpr int kInvalidRequest = -220417;  // a request that lacks something
inline constexpr int kOffMainThread = -220425;   // called on another thread than the main thread
inline constexpr int kIoTypeChosen = -220462;    // a second type of I/O handler
inline constexpr int kNoHostName = -220463;      // the host has no name
inline constexpr int kNoListener = -220542;      // no listener could be made for a service
inline constexpr int kNoSession = -220544;       // the net has no session
inline constexpr int kNotSent = -220545;         // the bus refused a send or a request

/// Reports `code` at `line` of `file`.
inline void report(int code, const char* file, int line, const char* text = nullptr) {
    const CVekError error(code, file, line, text);
}

}  // namespace kvx
