#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Ledger.h"

namespace kvx::test {

/// A real `rvd` on a free port of the loopback, ended with this object whatever becomes of the
/// test; at the end it must have accounted for every copy, unless it was killed. Throws
/// `std::runtime_error` when it does not get ready.
class Daemon {
  public:
    /// Starts it with these options besides "-listen", with `variables` ("NAME=value") before the
    /// test's own environment, after the shell's command `limits`, such as "ulimit -n 40". Returns
    /// when it has said that it is ready.
    explicit Daemon(std::vector<std::string> options = {}, std::vector<std::string> variables = {},
                    const std::string& limits = ":", std::string program = KVX_RVD_PROGRAM)
        : options_(std::move(options)),
          variables_(std::move(variables)),
          limits_(limits),
          program_(std::move(program)) {
        start("0");
    }
    ~Daemon() { end(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    [[nodiscard]] std::uint16_t port() const { return port_; }
    /// "tcp:127.0.0.1:<port>": names a host, so that no client starts a daemon of its own.
    [[nodiscard]] std::string text() const { return "tcp:127.0.0.1:" + std::to_string(port_); }

    /// Of the one that serves now.
    [[nodiscard]] pid_t pid() const { return successor_ != 0 ? successor_ : process_->pid(); }

    /// SIGTERM, without waiting for what becomes of it.
    void askToStop() const { ::kill(pid(), SIGTERM); }
    /// SIGSTOP: it neither reads nor answers.
    void pause() const { ::kill(pid(), SIGSTOP); }
    void resume() const { ::kill(pid(), SIGCONT); }
    [[nodiscard]] bool isRunning() { return successor_ != 0 || process_->isRunning(); }

    /// Has it replaced by what is at its program's path now. Why it was not; empty when it was, and
    /// the former process has ended.
    std::string replace() {
        const std::size_t before = log().size();
        ::kill(pid(), SIGUSR2);
        return awaitReplacement(before);
    }
    /// The same for one that was asked for otherwise; `before`: the size of the log before that.
    std::string awaitReplacement(std::size_t before) {
        std::string said;
        const bool hasSaid = eventually([&] {
            said = log().substr(before);
            return said.find("took over ") != said.npos || said.find("not replaced: ") != said.npos;
        });
        if (!hasSaid) throw std::runtime_error("rvd says nothing: " + said);
        if (const auto at = said.find("not replaced: "); at != said.npos) return said.substr(at);
        const pid_t old = pid();
        successor_ = std::stoi(said.substr(said.find(", process ") + 10));
        waitpid(old, nullptr, 0);
        return {};
    }
    /// Has it report its counters. Empty when they obey the law, else what is wrong.
    std::string lawBrokenNow() {
        const auto reports = [this] { return countOf(log(), "counted:"); };
        const int before = reports();
        ::kill(pid(), SIGUSR1);
        static_cast<void>(eventually([&] { return reports() > before || !isRunning(); }));
        return brokenLaw(log());
    }
    /// Waits until it has ended by itself; its exit status. One that replaced another has no log
    /// from then on.
    int waitForEnd() {
        const bool isFirst = successor_ == 0;
        int status = -1;
        if (isFirst) {
            status = process_->wait();
        } else {
            waitpid(std::exchange(successor_, 0), &status, 0);
        }
        require(brokenLaw(log()));
        if (!isFirst) process_.reset();
        return status;
    }
    /// What it has written on standard error.
    [[nodiscard]] std::string log() const { return process_->errors(); }
    /// Waits for a line of the log that has `text`, and returns it; empty when there will be none.
    std::string awaitLog(const std::string& text) { return process_->awaitError(text); }
    /// SIGKILL: no goodbye to anybody.
    void kill() {
        ::kill(pid(), SIGKILL);
        if (successor_ != 0) waitpid(std::exchange(successor_, 0), nullptr, 0);
        process_->wait();
    }
    /// Starts it again on the same port, first killing it when it runs.
    void restart() {
        kill();
        start(std::to_string(port_));
    }

  private:
    // Ends the test program: this may run in a destructor.
    static void require(const std::string& wrong) {
        if (wrong.empty()) return;
        std::fprintf(stderr, "%s\n", wrong.c_str());
        std::abort();
    }
    void end() {
        if (!process_ || !isRunning()) return;
        resume();
        require(lawBrokenNow());
        kill();
    }
    void start(const std::string& port) {
        std::vector<std::string> arguments = {"-c", limits_ + R"( && exec "$0" "$@")", program_,
                                              "-listen", "tcp:" + port};
        arguments.insert(arguments.end(), options_.begin(), options_.end());
        prctl(PR_SET_CHILD_SUBREAPER, 1);  // a successor is this process's to reap
        process_.emplace("/bin/sh", arguments, variables_);
        const std::string ready = "rvd ready on tcp:";  // the first address is this one
        const std::string line = process_->awaitOutput(ready);
        if (line.empty()) throw std::runtime_error("rvd is not ready: " + process_->errors());
        port_ =
            static_cast<std::uint16_t>(std::stoi(line.substr(line.find(':', ready.size()) + 1)));
    }

    const std::vector<std::string> options_;
    const std::vector<std::string> variables_;
    const std::string limits_;
    const std::string program_;
    std::optional<ChildProcess> process_;
    pid_t successor_ = 0;  // 0: that process has not been replaced
    std::uint16_t port_ = 0;
};

}  // namespace kvx::test
