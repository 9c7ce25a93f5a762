#pragma once

#include <string>
#include <string_view>

#include "platform/Clock.h"

/// The only access to standard output of a program: a failed write makes the program fail. Any
/// thread; each call's text stays in one piece.
namespace kvx::bus {

/// Empties a terminal.
inline constexpr const char* kClearScreen = "\033[H\033[2J";

/// Writes a text. After a failure nothing more is written.
void print(std::string_view text);

/// Writes a text and a line end.
void printLine(std::string_view text);

/// Flushes the output. False after any failure.
bool flushOutput();

/// True after any failure: a program that only prints can end.
[[nodiscard]] bool outputHasFailed();

/// Closes standard output and returns `status`; after any failure reports it on standard error and
/// returns 1. Call it last.
[[nodiscard]] int closeOutput(int status);

/// The same; does nothing and returns false when another thread is writing for longer than `limit`.
[[nodiscard]] bool tryCloseOutput(int& status, platform::Milliseconds limit);

}  // namespace kvx::bus
