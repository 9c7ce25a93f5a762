#pragma once

#include "tests/support/Daemon.h"
#include "tests/support/Texts.h"

namespace kvx::test {

/// How a program ended and what it said.
struct Ended {
    int status = 0;
    std::string output;
    std::string errors;
};

/// The programs of the system as a user would run them: a daemon on a free port, a home directory
/// whose configuration names it, services and tools. All of it ends with the object.
class Installation {
  public:
    Installation() {
        std::filesystem::create_directory(home_.file("etc"));
        std::ofstream(home_.file("etc/Calvorine.rvd.cfg"))
            << "rendezvous session = { \"daemon\" = \"" << daemonText() << "\" };\n";
    }

    std::string daemonText() const { return daemon_.text(); }
    /// The same daemon's unix socket.
    std::string unixText() const { return "unix:" + path("rvd"); }
    Daemon& daemon() { return daemon_; }

    std::string file(const std::string& name, const std::string& content) {
        std::ofstream(home_.file(name), std::ios::binary) << content;
        return home_.file(name);
    }
    std::string path(const std::string& name) const { return home_.file(name); }

    std::unique_ptr<ChildProcess> start(const std::string& program,
                                        const std::vector<std::string>& arguments) {
        return std::make_unique<ChildProcess>(KVX_BIN_DIR "/" + program, arguments, variables());
    }

    Ended run(const std::string& program, const std::vector<std::string>& arguments) {
        const auto child = start(program, arguments);
        const int status = child->wait();
        return {status, child->output(), child->errors()};
    }

    /// A line as a person would type it, with the programs on the path.
    std::unique_ptr<ChildProcess> startShell(const std::string& line) {
        const std::string path = "PATH='" KVX_BIN_DIR "':\"$PATH\"; export PATH\n";
        return std::make_unique<ChildProcess>(
            "/bin/sh", std::vector<std::string>{"-c", path + line}, variables());
    }

    Ended shell(const std::string& line) {
        const auto child = startShell(line);
        const int status = child->wait();
        return {status, child->output(), child->errors()};
    }

    Ended kvx(const std::vector<std::string>& arguments) { return run("kvx", arguments); }

    /// A model service of no group over a file of comma-separated values, once it answers.
    std::unique_ptr<ChildProcess> startModel(const std::string& csv,
                                             std::vector<std::string> more = {}) {
        std::vector<std::string> arguments = {"--db",    path("model.db"), "--table",
                                              "devices", "--load",         csv,
                                              "--key",   "name",           "--standalone"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        auto model = start("modeld", arguments);
        EXPECT_NE(model->awaitError("answering"), "") << model->errors();
        return model;
    }

  private:
    std::vector<std::string> variables() const {
        return {"KVX_HOME=" + home_.path(), "XDG_STATE_HOME=" + home_.path()};
    }

    TemporaryDirectory home_;
    Daemon daemon_{{"-listen", unixText()}};
};

}  // namespace kvx::test
