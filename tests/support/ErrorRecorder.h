#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "foundation/foundation.h"

namespace kvx::test {

/// One error report.
struct Report {
    int code = 0;
    std::string file;
    int line = 0;
    std::string text;  // empty for none

    bool operator==(const Report&) const = default;
};

using Reports = std::vector<Report>;

inline std::ostream& operator<<(std::ostream& out, const Report& report) {
    return out << report.code << " " << report.file << ":" << report.line << " \"" << report.text
               << "\"";
}

/// Collects what is reported with `CVekError` while it lives, instead of having it written. One at
/// a time; reports may come from any thread.
class ErrorRecorder {
  public:
    ErrorRecorder() { reports_.clear(); }
    ~ErrorRecorder() { CVekError::SetHandler(previous_); }
    ErrorRecorder(const ErrorRecorder&) = delete;
    ErrorRecorder& operator=(const ErrorRecorder&) = delete;

    /// What was reported since the last call.
    Reports take() {
        const std::lock_guard guard(lock_);
        return std::exchange(reports_, {});
    }

  private:
    static void record(int code, const char* file, int line, const char* text) {
        const std::lock_guard guard(lock_);
        reports_.push_back({code, file, line, text != nullptr ? text : ""});
    }

    static inline Reports reports_;
    static inline std::mutex lock_;
    VekErrorHandler previous_ = CVekError::SetHandler(&record);
};

/// Sets the debug level for as long as it lives.
class DebugLevel {
  public:
    explicit DebugLevel(int level) : previous_(__ZembraLix_Debug_Level) {
        __ZembraLix_Debug_Level = level;
    }
    ~DebugLevel() { __ZembraLix_Debug_Level = previous_; }
    DebugLevel(const DebugLevel&) = delete;
    DebugLevel& operator=(const DebugLevel&) = delete;

  private:
    int previous_;
};

/// What `action` writes to standard output, respectively standard error.
template <class Action>
std::string outputOf(Action&& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}
template <class Action>
std::string errorOutputOf(Action&& action) {
    testing::internal::CaptureStderr();
    action();
    return testing::internal::GetCapturedStderr();
}

}  // namespace kvx::test
