#include "platform/Log.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string>
#include <utility>

#include "platform/Text.h"

namespace kvx::platform {
namespace {

constexpr std::array<const char*, 4> kLevelNames = {"ERROR", "WARN", "INFO", "DEBUG"};

// Single bytes beyond ASCII are not escaped.
void appendEscape(std::string& line, std::string_view piece) {
    if (static_cast<unsigned char>(piece.front()) < 0x80) return appendHexEscape(line, piece);
    line += piece;
}

void writeLine(std::time_t time, LogLevel level, std::string_view text) {
    std::string line = utcText(time) + ' ' + kLevelNames.at(static_cast<std::size_t>(level)) + ' ' +
                       escaped(text, appendEscape);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

std::string utcText(std::time_t time) {
    std::tm utc{};
    gmtime_r(&time, &utc);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return {text.data(), length};
}

void Log::write(LogLevel level, std::string_view text) {
    if (!enabled(level)) return;
    const std::time_t now = std::time(nullptr);
    if (level != LogLevel::Debug) {
        if (std::exchange(second_, now) != now) {
            const unsigned lines = std::exchange(lines_, 0);
            if (lines > kLinesASecond) {
                writeLine(now, LogLevel::Warning,
                          std::to_string(lines - kLinesASecond) + " lines were left out");
            }
        }
        if (++lines_ > kLinesASecond) return;
    }
    writeLine(now, level, prefix_ + std::string(text));
}

}  // namespace kvx::platform
