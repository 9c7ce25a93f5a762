#include "platform/Memory.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>
#include <string_view>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace kvx::platform {
namespace {

constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

std::uint64_t physicalMemory() {
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageSize = ::sysconf(_SC_PAGESIZE);
    if (pages <= 0 || pageSize <= 0) return kNoLimit;
    return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize);
}

std::uint64_t addressSpaceLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kNoLimit;
    return limit.rlim_cur;
}

// Of the group and those above it. A file that says "max", or that cannot be read, is no limit.
std::uint64_t leastLimit(const std::string& mount, std::filesystem::path group, const char* file) {
    std::uint64_t least = kNoLimit;
    for (;;) {
        std::uint64_t limit = 0;
        if (std::ifstream(mount + group.string() + '/' + file) >> limit && limit > 0) {
            least = std::min(least, limit);
        }
        if (group == group.parent_path()) return least;
        group = group.parent_path();
    }
}

}  // namespace

void keepFreedMemory() noexcept {
#ifdef __GLIBC__
    constexpr int kKept = 32 << 20;   // bytes; the largest threshold for mmap that glibc takes
    constexpr int kAtOnce = 1 << 20;  // bytes by which the heap grows
    mallopt(M_MMAP_THRESHOLD, kKept);
    mallopt(M_TRIM_THRESHOLD, kKept);
    mallopt(M_TOP_PAD, kAtOnce);
#endif
}

void returnLargeBlocks() noexcept {
#ifdef __GLIBC__
    constexpr int kLarge = 256 << 10;  // bytes
    constexpr int kKept = 4 << 20;     // bytes at the end of the heap
    mallopt(M_MMAP_THRESHOLD, kLarge);
    mallopt(M_TRIM_THRESHOLD, kKept);
#endif
}

void returnFreedMemory() noexcept {
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

std::uint64_t groupMemoryLimit(const std::string& membership, const std::string& root) {
    std::uint64_t least = kNoLimit;
    std::istringstream lines(membership);
    for (std::string line; std::getline(lines, line);) {  // number:controllers:path
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', first + 1);
        if (second == std::string::npos) continue;
        const auto controllers = ',' + line.substr(first + 1, second - first - 1) + ',';
        const std::filesystem::path group = line.substr(second + 1);
        if (controllers == ",,") {
            least = std::min(least, leastLimit(root, group, "memory.max"));
        } else if (controllers.find(",memory,") != std::string::npos) {
            least = std::min(least, leastLimit(root + "/memory", group, "memory.limit_in_bytes"));
        }
    }
    return least == kNoLimit ? 0 : least;
}

std::uint64_t availableMemoryBytes() {
    std::ifstream file("/proc/self/cgroup");
    const std::string membership{std::istreambuf_iterator<char>(file), {}};
    const std::uint64_t group = groupMemoryLimit(membership, "/sys/fs/cgroup");
    const std::uint64_t least =
        std::min({physicalMemory(), addressSpaceLimit(), group == 0 ? kNoLimit : group});
    return least == kNoLimit ? 0 : least;
}

}  // namespace kvx::platform
