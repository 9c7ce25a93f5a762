#pragma once

namespace kvx {

/// Success of every foundation operation that returns `int`.
inline constexpr int kOk = 1;

/// The codes of the system's error catalogue that the foundation returns or reports itself.
inline constexpr int kMissingArgument = -220402;
inline constexpr int kNotCompleted = -220439;
inline constexpr int kInternalFailure = -220440;
inline constexpr int kWrongAtomType = -220532;
inline constexpr int kNotFound = -220547;
inline constexpr int kFileUnusable = -220549;
inline constexpr int kInvalidArgument = -220552;
inline constexpr int kNoMemory = -220553;
inline constexpr int kKeyPresent = -220566;

}  // namespace kvx
