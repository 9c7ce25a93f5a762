// Starting, ending and inspecting processes.
//
// A child is started with posix_spawn, which reports a program that cannot be run. A daemon takes
// two forks: the first child starts a session and forks again, so that the daemon belongs to init
// and never becomes our zombie. The daemon's process id, or the error of a failed exec, is returned
// through a pipe that a successful exec closes. Between fork and exec only async-signal-safe calls
// are made, on memory prepared before: other threads may hold any lock.

#include "platform/Process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// glibc 2.36 declares these functions without C linkage.
extern "C" {
#include <sys/pidfd.h>
}

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string_view>
#include <system_error>

#include "platform/Descriptor.h"
#include "platform/File.h"
#include "platform/Supervisor.h"

namespace kvx::platform {

namespace {

constexpr const char* kNullDevice = "/dev/null";
constexpr int kFirstOtherDescriptor = STDERR_FILENO + 1;

std::optional<passwd> userEntry(std::vector<char>& buffer, const char* name = nullptr) {
    buffer.resize(16384);
    passwd entry{};
    passwd* found = nullptr;
    const int error = name != nullptr
                          ? ::getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found)
                          : ::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found);
    return error == 0 && found != nullptr ? std::optional(entry) : std::nullopt;
}

std::vector<char*> argumentPointers(std::vector<std::string>& arguments) {
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    return pointers;
}

// The file to run. A name without a slash is searched on PATH, here and not after the fork.
std::optional<std::string> programFile(const Program& program) {
    if (program.path.find('/') != std::string::npos) return program.path;
    return findOnPath(program.path);
}

class SpawnAttributes {
  public:
    SpawnAttributes() {
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        ::posix_spawnattr_init(&attributes_);
        ::posix_spawnattr_setsigdefault(&attributes_, &all);
        ::posix_spawnattr_setsigmask(&attributes_, &none);
        ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }
    ~SpawnAttributes() { ::posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    [[nodiscard]] const posix_spawnattr_t* get() const noexcept { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

class SpawnActions {
  public:
    SpawnActions(const std::string& directory, int inherited) {
        ::posix_spawn_file_actions_init(&actions_);
        if (!directory.empty()) {
            ::posix_spawn_file_actions_addchdir_np(&actions_, directory.c_str());
        }
        if (inherited >= 0) {
            ::posix_spawn_file_actions_adddup2(&actions_, inherited, Program::kInherited);
        }
        ::posix_spawn_file_actions_addclosefrom_np(
            &actions_, inherited >= 0 ? Program::kInherited + 1 : kFirstOtherDescriptor);
    }
    ~SpawnActions() { ::posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    [[nodiscard]] const posix_spawn_file_actions_t* get() const noexcept { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

// The data of the two forked processes of a daemon start, prepared before the first fork.
struct DaemonPlan {
    const char* file;
    char* const* arguments;
    char* const* environment;
    const char* directory;  // null keeps the current one
    int input;
    int output;
    int report;  // the writing end of the pipe to the starter
};

void reportToStarter(const DaemonPlan& plan, int value) noexcept {
    [[maybe_unused]] const ssize_t written = ::write(plan.report, &value, sizeof value);
}

void resetSignals() noexcept {
    for (int signal = 1; signal < NSIG; ++signal) ::signal(signal, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void becomeDaemon(const DaemonPlan& plan) noexcept {
    resetSignals();
    if ((plan.directory == nullptr || ::chdir(plan.directory) == 0) &&
        ::dup2(plan.input, STDIN_FILENO) >= 0 && ::dup2(plan.output, STDOUT_FILENO) >= 0 &&
        ::dup2(plan.output, STDERR_FILENO) >= 0) {
        ::close_range(kFirstOtherDescriptor, UINT_MAX, CLOSE_RANGE_CLOEXEC);
        ::execve(plan.file, plan.arguments, plan.environment);
    }
    reportToStarter(plan, -errno);
    ::_exit(127);
}

[[noreturn]] void forkDaemon(const DaemonPlan& plan) noexcept {
    ::setsid();
    const pid_t daemon = ::fork();
    if (daemon == 0) becomeDaemon(plan);
    reportToStarter(plan, daemon > 0 ? daemon : -errno);
    ::_exit(0);
}

// The first child writes the daemon's process id and the daemon a failure, in either order, until
// the pipe is closed.
Started readReport(int pipe) noexcept {
    Started started;
    int value = 0;
    for (;;) {
        const ssize_t got = ::read(pipe, &value, sizeof value);
        if (got < 0 && errno == EINTR) continue;
        if (got != sizeof value) break;
        if (value > 0) started.pid = static_cast<unsigned long>(value);
        if (value < 0) started.error = -value;
    }
    if (started.error != 0) started.pid = 0;
    return started;
}

int openDaemonLog(const std::string& logName) {
    const std::string directory = stateDirectory();
    int log = -1;
    if (!directory.empty()) {
        log = ::open((directory + "/" + logName + ".log").c_str(),
                     O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }
    return log >= 0 ? log : ::open(kNullDevice, O_WRONLY | O_CLOEXEC);
}

// dup2 onto itself keeps close-on-exec, so the plan's descriptors must lie above the standard ones.
int aboveStandardStreams(int descriptor) noexcept {
    if (descriptor < 0 || descriptor >= kFirstOtherDescriptor) return descriptor;
    const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstOtherDescriptor);
    ::close(descriptor);
    return moved;
}

Started launch(DaemonPlan plan, Descriptor& reading, Descriptor& writing) {
    plan.report = writing.get();
    const pid_t starter = ::fork();
    if (starter == 0) forkDaemon(plan);
    if (starter < 0) return {0, errno};
    writing.reset();
    const Started started = readReport(reading.get());
    while (::waitpid(starter, nullptr, 0) < 0 && errno == EINTR) {
    }
    return started;
}

bool isProcessNumber(unsigned long pid) noexcept {
    return pid > 0 && pid <= INT_MAX;
}

enum class ChildState { None, Running, Reaped };

ChildState reapChild(pid_t pid, int options, int* status = nullptr) noexcept {
    for (;;) {
        const pid_t ended = ::waitpid(pid, status, options);
        if (ended == 0) return ChildState::Running;
        if (ended == pid) return ChildState::Reaped;
        if (errno != EINTR) return ChildState::None;
    }
}

bool isGone(pid_t pid) noexcept {
    return ::kill(pid, 0) != 0 && errno == ESRCH;
}

// Waits in real time until the child has ended. False when `grace` passes first.
bool waitForEnd(pid_t pid, Milliseconds grace) noexcept {
    const Descriptor child(::pidfd_open(pid, 0));
    if (child.get() < 0) return false;
    pollfd entry{child.get(), POLLIN, 0};
    return ::poll(&entry, 1, static_cast<int>(std::clamp<Milliseconds>(grace, 0, INT_MAX))) > 0;
}

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

std::optional<std::string> executableOf(const std::string& process) {
    std::error_code error;
    std::string path = std::filesystem::read_symlink("/proc/" + process + "/exe", error).string();
    if (error) return std::nullopt;
    // The system appends this to the path of a program file that was deleted or replaced.
    static const std::string replaced = " (deleted)";
    if (path.ends_with(replaced)) path.resize(path.size() - replaced.size());
    return path;
}

std::optional<std::string> firstArgumentOf(const std::string& process) {
    std::ifstream arguments("/proc/" + process + "/cmdline", std::ios::binary);
    std::string first;
    if (!std::getline(arguments, first, '\0') || first.empty()) return std::nullopt;
    return first;
}

std::string stateHome() {
    const char* configured = std::getenv("XDG_STATE_HOME");
    if (configured != nullptr && configured[0] == '/') return configured;
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/') return std::string(home) + "/.local/state";
    std::vector<char> buffer;
    const auto user = userEntry(buffer);
    return user ? std::string(user->pw_dir) + "/.local/state" : std::string();
}

}  // namespace

std::string userName() {
    std::vector<char> buffer;
    const auto user = userEntry(buffer);
    return user && user->pw_name[0] != '\0' ? user->pw_name : "Unknown user";
}

std::optional<std::uint32_t> userId(const std::string& name) {
    std::vector<char> buffer;
    const auto user = userEntry(buffer, name.c_str());
    return user ? std::optional<std::uint32_t>(user->pw_uid) : std::nullopt;
}

unsigned long processId() noexcept {
    return static_cast<unsigned long>(::getpid());
}

Started startChild(const Program& program) {
    const auto file = programFile(program);
    if (!file) return {0, ENOENT};
    std::vector<std::string> arguments = program.arguments;
    const std::vector<char*> pointers = argumentPointers(arguments);
    const SpawnAttributes attributes;
    const SpawnActions actions(program.directory, program.inherited);
    const std::vector<char*> environment = environmentOfChild(program.isSuccessor);
    pid_t pid = 0;
    const int error = ::posix_spawn(&pid, file->c_str(), actions.get(), attributes.get(),
                                    pointers.data(), environment.data());
    return error == 0 ? Started{static_cast<unsigned long>(pid), 0} : Started{0, error};
}

Started startDaemon(const Program& program, const std::string& logName) {
    const auto file = programFile(program);
    if (!file) return {0, ENOENT};
    std::vector<std::string> arguments = program.arguments;
    const std::vector<char*> pointers = argumentPointers(arguments);
    const std::vector<char*> environment = environmentOfChild(program.isSuccessor);
    const Descriptor input(aboveStandardStreams(::open(kNullDevice, O_RDONLY | O_CLOEXEC)));
    const Descriptor output(aboveStandardStreams(openDaemonLog(logName)));
    std::array<int, 2> pipe{};
    if (input.get() < 0 || output.get() < 0 || ::pipe2(pipe.data(), O_CLOEXEC) != 0) {
        return {0, errno};
    }
    Descriptor reading(pipe[0]);
    Descriptor writing(aboveStandardStreams(pipe[1]));
    const char* directory = program.directory.empty() ? nullptr : program.directory.c_str();
    return launch({file->c_str(), pointers.data(), environment.data(), directory, input.get(),
                   output.get(), -1},
                  reading, writing);
}

bool killAndReap(unsigned long pid, Milliseconds grace) {
    if (!isProcessNumber(pid)) return false;
    const auto child = static_cast<pid_t>(pid);
    const ChildState state = reapChild(child, WNOHANG);
    if (state != ChildState::Running) return state == ChildState::Reaped;
    ::kill(child, SIGTERM);
    if (!waitForEnd(child, grace)) ::kill(child, SIGKILL);
    // A program that ignores SIGCHLD, or waits for all its children, may have reaped the child
    // first.
    return reapChild(child, 0) == ChildState::Reaped || isGone(child);
}

std::optional<int> reap(unsigned long pid) noexcept {
    int status = 0;
    if (!isProcessNumber(pid) ||
        reapChild(static_cast<pid_t>(pid), WNOHANG, &status) != ChildState::Reaped) {
        return std::nullopt;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool sendSignal(unsigned long pid, int signal) noexcept {
    return isProcessNumber(pid) && ::kill(static_cast<pid_t>(pid), signal) == 0;
}

std::string programDirectory() {
    const auto file = executableOf("self");
    return file ? file->substr(0, file->rfind('/')) : std::string();
}

std::string fileOfCode(const void* address) {
    Dl_info object{};
    if (::dladdr(address, &object) == 0 || object.dli_fname == nullptr) return {};
    const std::unique_ptr<char, decltype(&std::free)> path(::realpath(object.dli_fname, nullptr),
                                                           &std::free);
    return path ? path.get() : "";
}

std::optional<std::string> programName(unsigned long pid) {
    if (!isProcessNumber(pid)) return std::nullopt;
    const std::string process = std::to_string(pid);
    auto file = executableOf(process);
    if (!file) file = firstArgumentOf(process);
    return file ? std::optional(baseName(*file)) : std::nullopt;
}

std::optional<std::string> findOnPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    if (path == nullptr || name.empty()) return std::nullopt;
    std::string_view left = path;
    for (;;) {
        const std::size_t end = std::min(left.find(':'), left.size());
        std::string file(end == 0 ? "." : left.substr(0, end));
        file.append("/").append(name);
        if (isExecutable(file)) return file;
        if (end == left.size()) return std::nullopt;
        left.remove_prefix(end + 1);
    }
}

std::string stateDirectory() {
    const std::string home = stateHome();
    if (home.empty()) return {};
    const std::string directory = home + "/kvxmom";
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    return error ? std::string() : directory;
}

std::size_t raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const std::uint64_t open = processFigures().openDescriptors;
    return limit.rlim_cur > open ? limit.rlim_cur - open : 0;
}

ProcessFigures processFigures() {
    ProcessFigures figures;
    rusage usage{};
    if (::getrusage(RUSAGE_SELF, &usage) == 0) {
        const auto seconds = [](const timeval& time) {
            return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
        };
        figures.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    }
    std::uint64_t totalPages = 0;
    std::uint64_t residentPages = 0;
    if (std::ifstream("/proc/self/statm") >> totalPages >> residentPages) {
        figures.residentBytes =
            residentPages * static_cast<std::uint64_t>(std::max(0L, ::sysconf(_SC_PAGESIZE)));
    }
    std::error_code error;
    const std::filesystem::directory_iterator descriptors("/proc/self/fd", error);
    if (!error) {
        // The walk itself has one open.
        figures.openDescriptors =
            static_cast<std::uint64_t>(std::distance(begin(descriptors), end(descriptors))) - 1;
    }
    return figures;
}

void exitNow(int status) {
    // Only the standard streams: flushing all would block on a stream that another thread reads.
    std::cout.flush();
    std::clog.flush();
    std::fflush(stdout);
    std::fflush(stderr);
    ::_exit(status);
}

}  // namespace kvx::platform
