#include "rvd/Log.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string>

#include "platform/Text.h"

namespace kvx::rvd {
namespace {

constexpr std::array<const char*, 4> kLevelNames = {"ERROR", "WARN", "INFO", "DEBUG"};

std::string timeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return {text.data(), length};
}

// Single bytes beyond ASCII are not escaped.
void appendEscape(std::string& line, std::string_view piece) {
    if (static_cast<unsigned char>(piece.front()) < 0x80) return appendHexEscape(line, piece);
    line += piece;
}

}  // namespace

void Log::write(LogLevel level, std::string_view text) const {
    if (!enabled(level)) return;
    std::string line = timeStamp() + ' ' + kLevelNames.at(static_cast<std::size_t>(level)) + ' ' +
                       escaped(text, appendEscape);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace kvx::rvd
