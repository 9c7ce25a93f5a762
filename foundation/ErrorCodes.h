#pragma once

namespace kvx {

/// Success of every operation of the foundation and of the middleware that returns `int`.
inline constexpr int kOk = 1;

/// The error codes that the foundation returns or reports; those of the middleware are in
/// `mom/base/VekCodes.h`.
inline constexpr int kMissingArgument = -220402;  // a required argument is missing
inline constexpr int kNotCompleted = -220439;     // the operation is not possible in this state
inline constexpr int kInternalFailure = -220440;  // a library below, or this one, failed
inline constexpr int kWrongAtomType = -220532;    // the atom holds another type of value
inline constexpr int kNotFound = -220547;         // no such entry
inline constexpr int kFileUnusable = -220549;     // the file is missing or cannot be read
inline constexpr int kInvalidArgument = -220552;  // a null or invalid argument
inline constexpr int kNoMemory = -220553;         // an allocation failed
inline constexpr int kKeyPresent = -220566;       // the key is there already

}  // namespace kvx
