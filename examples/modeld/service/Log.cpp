// Log lines of the service. A line is one write, so that lines of two threads do not mix.

#include "examples/modeld/service/Log.h"

#include <atomic>
#include <cstdio>

#include "platform/Text.h"

namespace modeld {

namespace {

std::atomic<LogLevel> chosenLevel{LogLevel::Info};

constexpr const char* kLevelWords[] = {"error", "warning", "info", "debug"};

}  // namespace

void Log::setLevel(LogLevel level) {
    chosenLevel = level;
}

bool Log::shows(LogLevel level) {
    return level <= chosenLevel;
}

void Log::write(LogLevel level, const std::string& text) {
    if (!shows(level)) return;
    const std::string line =
        fmt::format("modeld: {}: {}\n", kLevelWords[static_cast<int>(level)], kvx::oneLine(text));
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace modeld
