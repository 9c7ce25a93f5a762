#include "rvd/Log.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <string>

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

void appendEscaped(std::string& line, std::string_view text) {
    static constexpr char kDigits[] = "0123456789abcdef";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte != 0x7F) {
            line += c;
        } else {
            line += "\\x";
            line += kDigits[byte >> 4];
            line += kDigits[byte & 15];
        }
    }
}

}  // namespace

void Log::write(LogLevel level, std::string_view text) const {
    if (!enabled(level)) return;
    std::string line = timeStamp() + ' ' + kLevelNames.at(static_cast<std::size_t>(level)) + ' ';
    appendEscaped(line, text);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace kvx::rvd
