#pragma once

#include <string>

namespace kvx::bus {

/// Writes one line to standard error, after the program's name; shortens a long message and
/// replaces control characters by spaces. Any thread.
void complain(const std::string& message);

/// Writes unchanged text to standard error. Any thread. Like `complain`, it ignores write errors.
void note(const std::string& text);

/// Replaces the progress line on standard error, a terminal, by `text`; an empty text erases it.
/// `complain` erases it first. Any thread.
void showProgress(const std::string& text);

}  // namespace kvx::bus
