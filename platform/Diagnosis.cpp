#include "platform/Diagnosis.h"

#include <sys/resource.h>
#include <sys/timex.h>

#include <fstream>

namespace kvx::platform {

DescriptorLimits descriptorLimits() noexcept {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return {};
    return {limit.rlim_cur, limit.rlim_max};
}

std::optional<std::uint64_t> kernelSetting(const std::string& name) {
    std::ifstream in("/proc/sys/" + name);
    std::optional<std::uint64_t> last;
    for (std::uint64_t number = 0; in >> number;) last = number;
    return last;
}

std::string clockSource() {
    std::ifstream in("/sys/devices/system/clocksource/clocksource0/current_clocksource");
    std::string name;
    in >> name;
    return name;
}

std::optional<bool> isWallClockSynchronised() noexcept {
    timex state{};
    const int clock = ::adjtimex(&state);
    if (clock == -1) return std::nullopt;
    return clock != TIME_ERROR && (state.status & STA_UNSYNC) == 0;
}

}  // namespace kvx::platform
