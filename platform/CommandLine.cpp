#include "platform/CommandLine.h"

#include <cstdio>

#include "platform/File.h"
#include "platform/Text.h"

namespace kvx::platform {

namespace {

constexpr std::size_t kLongestError = 600;  // bytes

void complain(const std::string& program, const std::string& error) {
    const std::string line = program + ": " + shortened(printable(error), kLongestError) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

int answer(const std::string& program, const std::string& text) {
    const std::string error = writeOutput(text);
    if (error.empty()) return 0;
    complain(program, "standard output: " + error);
    return kFailureStatus;
}

int refuse(const std::string& program, const std::string& error) {
    complain(program, error);
    return kUsageStatus;
}

}  // namespace kvx::platform
