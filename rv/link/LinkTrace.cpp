#include "rv/link/LinkTrace.h"

#include <atomic>

namespace kvx::link {

namespace {
std::atomic<const int*> traceLevelSource{nullptr};
}

void setTraceLevel(const int* level) noexcept {
    traceLevelSource = level;
}

bool tracesAt(int threshold) noexcept {
    const int* level = traceLevelSource;
    return level != nullptr && *level >= threshold;
}

}  // namespace kvx::link
