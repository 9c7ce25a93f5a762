#include "tools/bus/Complain.h"

#include <fmt/format.h>

#include <cstdio>
#include <mutex>

#include "platform/Process.h"
#include "platform/Text.h"

namespace kvx::bus {

namespace {

constexpr std::size_t kLongestMessage = 600;  // bytes
constexpr const char* kClearLine = "\r\033[K";

std::mutex errorLock;
bool progressIsShown = false;  // guarded by errorLock

const std::string& programName() {
    static const std::string name = platform::programName(platform::processId()).value_or("kvx");
    return name;
}

// With the lock held. One write per line, so that lines of several processes do not mix.
void tell(const std::string& line) {
    const std::string text = (progressIsShown ? kClearLine : "") + line;
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

}  // namespace

void complain(const std::string& message) {
    const std::string text = shortened(printable(message), kLongestMessage);
    const std::lock_guard guard(errorLock);
    tell(fmt::format("{}: {}\n", programName(), text));
    progressIsShown = false;
}

void note(const std::string& text) {
    const std::lock_guard guard(errorLock);
    tell(text);
    progressIsShown = false;
}

void showProgress(const std::string& text) {
    const std::lock_guard guard(errorLock);
    if (text.empty() && !progressIsShown) return;
    tell(text.empty() ? text : fmt::format("{}: {}", programName(), printable(text)));
    progressIsShown = !text.empty();
}

}  // namespace kvx::bus
