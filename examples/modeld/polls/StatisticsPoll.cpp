#include "examples/modeld/polls/StatisticsPoll.h"

#include <fmt/format.h>

#include <fstream>
#include <string>

#include "examples/modeld/service/Log.h"

namespace modeld {

namespace {

// What of the process is in memory, in megabytes; 0 where the system does not say.
double residentMegabytes() {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        double kilobytes = 0;
        if (word == "VmRSS:" && status >> kilobytes) return kilobytes / 1024;
    }
    return 0;
}

}  // namespace

StatisticsPoll::StatisticsPoll(CVekEngine& engine, const ModelService& service, int seconds)
    : engine_(engine), service_(service) {
    RTWSetName(new CVekAtom("statistics"));
    RTWSetFrequency(seconds);
}

void StatisticsPoll::RTWDoPoll() {
    const auto statistics = service_.statistics();
    const std::string line = fmt::format(
        "{} questions answered, {} refused, {} rows sent; {} questions and {} packets wait; "
        "{:.1f} MB in memory",
        statistics.answered, statistics.refused, statistics.rows, statistics.waiting,
        engine_.RESendQueueLength(), residentMegabytes());
    const std::uint64_t done = statistics.answered + statistics.refused;
    if (done != told_) {
        Log::info("{}", line);
    } else {
        Log::debug("{}", line);
    }
    told_ = done;
}

}  // namespace modeld
