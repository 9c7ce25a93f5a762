#include "tools/bus/Complain.h"

#include <fmt/format.h>

#include "platform/Process.h"

namespace kvx::bus {

void complain(const std::string& message) {
    static const std::string program = platform::programName(platform::processId()).value_or("kvx");
    fmt::print(stderr, "{}: {}\n", program, message);
}

}  // namespace kvx::bus
