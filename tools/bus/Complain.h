#pragma once

#include <string>

namespace kvx::bus {

/// One line on standard error, with the program's name before it. Any thread.
void complain(const std::string& message);

}  // namespace kvx::bus
