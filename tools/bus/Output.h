#pragma once

#include <string>
#include <string_view>

#include "platform/Clock.h"

/// Standard output of a program, and the only way to it: whatever could not be written is known,
/// and makes the program fail. Any thread; each call's text stays in one piece.
namespace kvx::bus {

/// Writes a text. After a failure nothing more is written.
void print(std::string_view text);

/// Writes a text and a line end.
void printLine(std::string_view text);

/// Flushes what has been written. False when something could not be written.
bool flushOutput();

/// True when something could not be written. A program that only prints has no reason to go on.
[[nodiscard]] bool outputHasFailed();

/// The exit status of a program that wants to end with `status`: with standard output closed, and
/// 1 when something could not be written, which is told on standard error. Call it last.
[[nodiscard]] int closeOutput(int status);

/// The same, but does nothing when another thread is writing for longer than `limit`.
[[nodiscard]] bool tryCloseOutput(int& status, platform::Milliseconds limit);

}  // namespace kvx::bus
