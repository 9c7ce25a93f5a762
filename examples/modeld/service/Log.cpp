// Log lines of the service. A line goes out with one call, so that lines of two threads never mix.

#include "examples/modeld/service/Log.h"

#include <algorithm>
#include <atomic>
#include <cstdio>

#include "examples/modeld/oql/Text.h"

namespace modeld {

namespace {

std::atomic<LogLevel> chosenLevel{LogLevel::Info};

constexpr const char* kLevelWords[] = {"error", "warning", "info", "debug"};

}  // namespace

std::string oneLine(std::string_view text) {
    std::string line;
    for (std::size_t length = 0; !text.empty(); text.remove_prefix(length)) {
        length = oql::characterLength(text);
        if (length != 0 && !oql::startsWithControl(text)) {
            line += text.substr(0, length);
            continue;
        }
        length = std::max<std::size_t>(length, 1);
        for (const char byte : text.substr(0, length)) {
            line += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
        }
    }
    return line;
}

void Log::setLevel(LogLevel level) {
    chosenLevel = level;
}

bool Log::shows(LogLevel level) {
    return level <= chosenLevel;
}

void Log::write(LogLevel level, const std::string& text) {
    if (!shows(level)) return;
    const std::string line =
        fmt::format("modeld: {}: {}\n", kLevelWords[static_cast<int>(level)], oneLine(text));
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace modeld
