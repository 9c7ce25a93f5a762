// Log lines of the service. A line goes out with one call, so that lines of two threads never mix.

#include "examples/modeld/service/Log.h"

#include <atomic>
#include <cstdio>

namespace modeld {

namespace {

std::atomic<LogLevel> chosenLevel{LogLevel::Info};

constexpr const char* kLevelWords[] = {"error", "warning", "info", "debug"};

}  // namespace

void Log::setLevel(LogLevel level) {
    chosenLevel = level;
}

void Log::write(LogLevel level, const std::string& text) {
    if (level > chosenLevel) return;
    const std::string line =
        fmt::format("modeld: {}: {}\n", kLevelWords[static_cast<int>(level)], text);
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace modeld
