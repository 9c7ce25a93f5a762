#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <initializer_list>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/TemporaryDirectory.h"

extern char** environ;

namespace kvx::test {

/// Asks `condition` again and again until it holds. False when it never did within `limit`, which
/// is there to end a broken test, not to time a good one.
template <class Condition>
bool eventually(Condition&& condition, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
        usleep(2000);
    }
    return true;
}

/// How often a text, such as what a program has said, has that part.
inline int countOf(std::string_view text, std::string_view part) {
    int count = 0;
    for (auto at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++count;
    return count;
}

/// A real child process of a test: started with its output in files, watched, and ended at the
/// latest with the object or with the thread that started it. A program that cannot run exits
/// with 127.
class ChildProcess {
  public:
    /// `variables` ("NAME=value") come before the test's own environment.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::vector<std::string>& variables = {}) {
        std::vector<char*> argv{const_cast<char*>(program.c_str())};
        for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        std::vector<char*> environment;
        for (const auto& variable : variables) {
            environment.push_back(const_cast<char*>(variable.c_str()));
        }
        for (char** entry = environ; *entry != nullptr; ++entry) environment.push_back(*entry);
        environment.push_back(nullptr);

        const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
        const int output = created(outputPath());
        const int errors = created(errorPath());
        const pid_t parent = getpid();
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that crashes leaves nothing behind
            if (getppid() != parent) _exit(126);
            dup2(input, STDIN_FILENO);
            dup2(output, STDOUT_FILENO);
            dup2(errors, STDERR_FILENO);
            execve(argv[0], argv.data(), environment.data());
            _exit(127);
        }
        for (const int descriptor : {input, output, errors}) close(descriptor);
    }

    ~ChildProcess() {
        if (isRunning()) {
            kill(SIGKILL);
            wait();
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return pid_; }
    std::string output() const { return contentOf(outputPath()); }
    std::string errors() const { return contentOf(errorPath()); }

    void kill(int signal) const {
        if (pid_ > 0 && !ended_) ::kill(pid_, signal);
    }

    bool isRunning() {
        if (pid_ > 0 && !ended_ && waitpid(pid_, &status_, WNOHANG) == pid_) ended_ = true;
        return pid_ > 0 && !ended_;
    }

    /// Waits for the end. The exit status, or minus the number of the signal that ended it.
    int wait() {
        if (pid_ <= 0) return -1000;
        if (!ended_ && waitpid(pid_, &status_, 0) == pid_) ended_ = true;
        return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
    }

    /// Waits for a line of standard output (or standard error) that holds `text`, and returns it;
    /// empty when the process ended, or a minute passed, without one.
    std::string awaitOutput(const std::string& text) { return awaitLine(outputPath(), text); }
    std::string awaitError(const std::string& text) { return awaitLine(errorPath(), text); }

  private:
    std::string outputPath() const { return directory_.file("out"); }
    std::string errorPath() const { return directory_.file("err"); }

    static int created(const std::string& path) {
        return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    }
    std::string awaitLine(const std::string& path, const std::string& text) {
        std::string line;
        static_cast<void>(eventually([&] {
            const bool running = isRunning();
            std::istringstream lines(contentOf(path));
            while (std::getline(lines, line) && !lines.eof()) {  // whole ones only
                if (line.find(text) != std::string::npos) return true;
            }
            line.clear();
            return !running;
        }));
        return line;
    }

    TemporaryDirectory directory_;
    pid_t pid_ = 0;
    int status_ = 0;
    bool ended_ = false;
};

}  // namespace kvx::test
