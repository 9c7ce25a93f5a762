#include "platform/File.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace kvx::platform {

bool isReadable(const std::string& path) noexcept {
    return ::access(path.c_str(), R_OK) == 0;
}

bool isExecutable(const std::string& path) noexcept {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

void reserveStandardStreams() noexcept {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) != -1) continue;
        // Opened for the other direction, so that using the stream is still an error. `open`
        // returns this descriptor: those below it are open by now.
        const int direction = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        static_cast<void>(::open("/dev/null", direction));
    }
}

std::string writeOutput(std::string_view text) {
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
        std::fflush(stdout) == 0) {
        return {};
    }
    return std::generic_category().message(errno != 0 ? errno : EIO);
}

bool isTerminal(std::FILE* stream) noexcept {
    return ::isatty(::fileno(stream)) == 1;
}

std::size_t terminalHeight(std::FILE* stream) noexcept {
    winsize size{};
    return ::ioctl(::fileno(stream), TIOCGWINSZ, &size) == 0 ? size.ws_row : 0;
}

}  // namespace kvx::platform
