#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <utility>

namespace kvx::platform {

/// "2026-01-31T12:00:00Z".
[[nodiscard]] std::string utcText(std::time_t time);

enum class LogLevel { Error = 0, Warning = 1, Info = 2, Debug = 3 };

/// Lines on standard error, each with its time (UTC) and level: "2026-01-31T12:00:00Z INFO text".
/// Control characters of `text` are escaped, so that a peer's bytes cannot forge a line. Of lines
/// that are not for debugging at most `kLinesASecond` are written: peers cannot fill a disk. The
/// next line says how many were left out.
class Log {
  public:
    /// `prefix` is put before each text.
    explicit Log(LogLevel level = LogLevel::Info, std::string prefix = {})
        : level_(level), prefix_(std::move(prefix)) {}

    static constexpr unsigned kLinesASecond = 100;

    [[nodiscard]] bool enabled(LogLevel level) const { return level <= level_; }
    void write(LogLevel level, std::string_view text);

    void error(std::string_view text) { write(LogLevel::Error, text); }
    void warning(std::string_view text) { write(LogLevel::Warning, text); }
    void info(std::string_view text) { write(LogLevel::Info, text); }
    void debug(std::string_view text) { write(LogLevel::Debug, text); }

  private:
    LogLevel level_;
    std::string prefix_;
    std::time_t second_ = 0;  // of the last line
    unsigned lines_ = 0;      // in that second
};

}  // namespace kvx::platform
