#pragma once

#include <httplib.h>

#include "tests/system/Installation.h"

namespace kvx::test {

/// The agent as a process of its own, beside a real daemon.
struct AgentFixture : testing::Test {
    /// Status -1 and no body where nobody serves.
    static httplib::Response get(int port, const std::string& path) {
        auto result = httplib::Client("127.0.0.1", port).Get(path);
        return result ? std::move(*result) : httplib::Response{};
    }

    /// Starts the agent on a free port; the port, once it serves.
    int start(std::vector<std::string> options = {}) {
        options.insert(options.end(), {"-foreground", "-flavor", "53", "-listen", "0"});
        agent_ = bus_.start("rva", options);
        const std::string ready = agent_->awaitOutput("ready");
        EXPECT_NE(ready, "") << agent_->errors();
        return ready.empty() ? 0 : std::stoi(ready.substr(ready.rfind(':') + 1));
    }

    Installation bus_;
    std::unique_ptr<ChildProcess> agent_;
};

}  // namespace kvx::test
