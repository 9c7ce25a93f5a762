#pragma once

#include <string_view>

namespace kvx::rvd {

enum class LogLevel { Error = 0, Warning = 1, Info = 2, Debug = 3 };

/// Lines on standard error, each with its time (UTC) and level: "2026-01-31T12:00:00Z INFO text".
/// Control characters of `text` are escaped, so that a peer's bytes cannot forge a line.
class Log {
  public:
    explicit Log(LogLevel level = LogLevel::Info) : level_(level) {}

    [[nodiscard]] bool enabled(LogLevel level) const { return level <= level_; }
    void write(LogLevel level, std::string_view text) const;

    void error(std::string_view text) const { write(LogLevel::Error, text); }
    void warning(std::string_view text) const { write(LogLevel::Warning, text); }
    void info(std::string_view text) const { write(LogLevel::Info, text); }
    void debug(std::string_view text) const { write(LogLevel::Debug, text); }

  private:
    LogLevel level_;
};

}  // namespace kvx::rvd
