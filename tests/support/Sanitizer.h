#pragma once

namespace kvx::test {

/// Whether a sanitizer watches: everything is several times slower then, and memory is no measure.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kIsWatched = true;
#else
inline constexpr bool kIsWatched = false;
#endif

}  // namespace kvx::test
