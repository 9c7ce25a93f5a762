#pragma once

#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "tests/support/ChildProcess.h"

namespace kvx::test {

/// A real `nats-server` on free ports of the loopback, a node of a cluster, ended with this object.
/// Throws `std::runtime_error` when it does not get ready.
class NatsServer {
  public:
    /// Joins the cluster of `other`; null: the first node of a new one. Returns when it is ready.
    explicit NatsServer(const NatsServer* other = nullptr)
        : NatsServer(other == nullptr ? "" : other->clusterPort_) {}
    /// Joins what listens on this port, if any; with these options besides.
    explicit NatsServer(const std::string& clusterPort, std::vector<std::string> options = {})
        : routes_(clusterPort.empty() ? "" : "nats://127.0.0.1:" + clusterPort),
          options_(std::move(options)) {
        start();
        port_ = portOf("nats");
        clusterPort_ = portOf("cluster");
    }

    [[nodiscard]] const std::string& port() const { return port_; }
    [[nodiscard]] const std::string& clusterPort() const { return clusterPort_; }
    [[nodiscard]] std::string url() const { return "nats://127.0.0.1:" + port_; }

    [[nodiscard]] pid_t pid() const { return process_->pid(); }

    /// SIGKILL.
    void kill() {
        process_->kill(SIGKILL);
        process_->wait();
    }
    /// Starts it again on the same ports, first killing it when it runs.
    void restart() {
        kill();
        start();
    }
    /// With other options.
    void restart(std::vector<std::string> options) {
        options_ = std::move(options);
        restart();
    }

  private:
    void start() {
        const std::string command =
            "PATH=$PATH:/usr/sbin exec nats-server -a 127.0.0.1 -p " + port_ +
            " --cluster_name test --cluster nats://127.0.0.1:" + clusterPort_ + " --routes '" +
            routes_ + "' --ports_file_dir " + directory_.path() + R"( "$@")";
        std::vector<std::string> arguments{"-c", command, "nats-server"};
        arguments.insert(arguments.end(), options_.begin(), options_.end());
        process_.emplace("/bin/sh", arguments);
        if (process_->awaitError("Server is ready").empty()) {
            throw std::runtime_error("nats-server is not ready: " + process_->errors());
        }
    }
    // From the file that it writes after it is ready: {"nats":["nats://127.0.0.1:4222"],...}.
    std::string portOf(const std::string& kind) const {
        std::string port;
        const auto read = [&] {
            for (const auto& file : std::filesystem::directory_iterator(directory_.path())) {
                const std::string text = contentOf(file.path());
                const auto from = text.find('"' + kind + "\":[");
                const auto to = text.find("\"]", from);
                if (to == text.npos) continue;
                port = text.substr(0, to).substr(text.rfind(':', to) + 1);
            }
            return !port.empty();
        };
        if (!eventually(read)) throw std::runtime_error("nats-server names no port: " + kind);
        return port;
    }

    const std::string routes_;
    std::vector<std::string> options_;
    TemporaryDirectory directory_;
    std::optional<ChildProcess> process_;
    std::string port_ = "-1";
    std::string clusterPort_ = "-1";
};

}  // namespace kvx::test
