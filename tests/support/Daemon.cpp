#include "tests/support/Daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kvx::test {
namespace {

constexpr int kPatienceMs = 60'000;  // only a hang takes this long

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File temporaryFile() {
    return {std::tmpfile(), &std::fclose};
}

std::string contents(std::FILE* file) {
    std::string text;
    std::array<char, 4096> part{};
    const int descriptor = fileno(file);
    ssize_t count = 0;
    while ((count = pread(descriptor, part.data(), part.size(), static_cast<off_t>(text.size()))) >
           0) {
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    return text;
}

int spawn(const std::vector<std::string>& arguments, int output, int errors) {
    std::vector<std::string> words = {KVX_RVD_PROGRAM};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("cannot fork");
    if (pid > 0) return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(126);
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
}

int waitForEnd(int pid) {
    const int handle = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    pollfd entry{handle, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, kPatienceMs);
    } while (ready < 0 && errno == EINTR);
    close(handle);
    if (ready <= 0) {
        ::kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        throw std::runtime_error("rvd does not end");
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string readLine(int descriptor) {
    std::string line;
    char c = 0;
    pollfd entry{descriptor, POLLIN, 0};
    while (poll(&entry, 1, kPatienceMs) > 0 && read(descriptor, &c, 1) == 1 && c != '\n') line += c;
    return line;
}

}  // namespace

Daemon::Daemon(std::vector<std::string> options)
    : options_(std::move(options)), log_(temporaryFile()) {
    start(0);
}

Daemon::~Daemon() {
    if (running()) kill();
}

std::string Daemon::text() const {
    return "tcp:127.0.0.1:" + std::to_string(port_);
}

std::string Daemon::localText() const {
    return "tcp:" + std::to_string(port_);
}

void Daemon::start(std::uint16_t port) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    std::vector<std::string> arguments = {"-listen", "tcp:" + std::to_string(port)};
    arguments.insert(arguments.end(), options_.begin(), options_.end());
    pid_ = spawn(arguments, ends[1], fileno(log_.get()));
    close(ends[1]);
    const std::string line = readLine(ends[0]);
    close(ends[0]);
    const auto colon = line.rfind(':');
    if (line.rfind("rvd ready on tcp:", 0) != 0 || colon == std::string::npos) {
        kill();
        throw std::runtime_error("rvd is not ready: '" + line + "' " + log());
    }
    port_ = static_cast<std::uint16_t>(std::stoi(line.substr(colon + 1)));
}

int Daemon::waitForEnd() {
    return test::waitForEnd(std::exchange(pid_, 0));
}

int Daemon::stop() {
    ::kill(pid_, SIGTERM);
    return waitForEnd();
}

void Daemon::kill() {
    ::kill(pid_, SIGKILL);
    (void)waitForEnd();
}

void Daemon::restart() {
    if (running()) kill();
    start(port_);
}

std::string Daemon::log() const {
    return contents(log_.get());
}

Finished runDaemonProgram(const std::vector<std::string>& arguments) {
    const File output = temporaryFile();
    const File errors = temporaryFile();
    Finished finished;
    finished.status = waitForEnd(spawn(arguments, fileno(output.get()), fileno(errors.get())));
    finished.output = contents(output.get());
    finished.errors = contents(errors.get());
    return finished;
}

}  // namespace kvx::test
