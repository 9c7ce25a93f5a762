#pragma once

#include <cstdint>
#include <string>

namespace kvx::bench {

/// A broker under measurement: a child process that prints "... ready on tcp:host:port". Killed
/// when this object is destroyed.
class Broker {
  public:
    /// `program` with its arguments, as a command line without quoting.
    explicit Broker(const std::string& commandLine);
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    [[nodiscard]] std::uint16_t port() const { return port_; }
    [[nodiscard]] int pid() const { return pid_; }

  private:
    int pid_ = 0;
    std::uint16_t port_ = 0;
};

}  // namespace kvx::bench
