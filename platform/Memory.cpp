#include "platform/Memory.h"

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace kvx::platform {

void keepFreedMemory() noexcept {
#ifdef __GLIBC__
    constexpr int kKept = 32 << 20;   // bytes; the largest threshold for mmap that glibc takes
    constexpr int kAtOnce = 1 << 20;  // bytes by which the heap grows
    mallopt(M_MMAP_THRESHOLD, kKept);
    mallopt(M_TRIM_THRESHOLD, kKept);
    mallopt(M_TOP_PAD, kAtOnce);
#endif
}

}  // namespace kvx::platform
