#pragma once

#include <fmt/format.h>

#include <string>

namespace modeld {

enum class LogLevel { Error = 0, Warning = 1, Info = 2, Debug = 3 };

/// Lines on standard error, each with its level; texts are escaped (`kvx::oneLine`). Any thread.
class Log {
  public:
    static void setLevel(LogLevel level);
    static bool shows(LogLevel level);

    template <class... Args>
    static void error(fmt::format_string<Args...> format, Args&&... args) {
        write(LogLevel::Error, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    static void warning(fmt::format_string<Args...> format, Args&&... args) {
        write(LogLevel::Warning, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    static void info(fmt::format_string<Args...> format, Args&&... args) {
        write(LogLevel::Info, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    static void debug(fmt::format_string<Args...> format, Args&&... args) {
        write(LogLevel::Debug, fmt::format(format, std::forward<Args>(args)...));
    }

  private:
    static void write(LogLevel level, const std::string& text);
};

}  // namespace modeld
