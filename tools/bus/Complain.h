#pragma once

#include <string>

namespace kvx::bus {

/// One line on standard error, with the program's name before it; a long message is shortened and
/// control characters are spaces. Any thread.
void complain(const std::string& message);

/// Text on standard error as it is, for what stands below a complaint or beside the output. Any
/// thread. Like `complain`, it does not care whether somebody can read it.
void note(const std::string& text);

/// Draws `text` over the line that the last call left on standard error, a terminal; an empty text
/// takes it away. `complain` takes it away first. Any thread.
void showProgress(const std::string& text);

}  // namespace kvx::bus
