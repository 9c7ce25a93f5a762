#pragma once

#include <cstddef>

#include "platform/Clock.h"

namespace kvx::beats {

using platform::Milliseconds;

inline constexpr Milliseconds kForgetAfter = 600'000;  ///< of silence
inline constexpr std::size_t kMostServices = 10'000;   ///< and as many members of groups
inline constexpr std::size_t kLongestText = 255;       ///< bytes

}  // namespace kvx::beats
