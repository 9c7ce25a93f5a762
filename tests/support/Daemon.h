#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace kvx::test {

/// A real `rvd` on a free port of the loopback, ended with this object whatever becomes of the
/// test.
///
/// Starting and ending wait for the event itself and throw `std::runtime_error` when it does not
/// come.
class Daemon {
  public:
    /// Starts it with these options besides "-listen". Returns when it has said that it is ready.
    explicit Daemon(std::vector<std::string> options = {});
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    [[nodiscard]] std::uint16_t port() const { return port_; }
    /// "tcp:127.0.0.1:<port>": names a host, so that no client starts a daemon of its own.
    [[nodiscard]] std::string text() const;
    /// "tcp:<port>": a client may start a daemon when there is none.
    [[nodiscard]] std::string localText() const;
    [[nodiscard]] bool running() const { return pid_ > 0; }
    [[nodiscard]] int pid() const { return pid_; }

    /// SIGTERM. Returns the exit status once the process has ended.
    int stop();
    /// Waits until it has ended by itself; its exit status.
    int waitForEnd();
    /// SIGKILL: no goodbye to anybody.
    void kill();
    /// Starts it again on the same port (after `stop` or `kill`, or first killing it).
    void restart();

    /// What it has logged so far, since the first start.
    [[nodiscard]] std::string log() const;

  private:
    void start(std::uint16_t port);

    const std::vector<std::string> options_;
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> log_;
    std::uint16_t port_ = 0;
    int pid_ = 0;
};

/// The outcome of a program that ended by itself.
struct Finished {
    int status = -1;
    std::string output;
    std::string errors;
};

/// Runs `rvd` with these arguments until it ends by itself; for command lines that do not serve.
[[nodiscard]] Finished runDaemonProgram(const std::vector<std::string>& arguments);

}  // namespace kvx::test
