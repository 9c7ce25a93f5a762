#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/LinkEnd.h"

namespace kvx::test {

/// The daemon's end of one connection.
class PeerLink : public LinkEnd {
  public:
    using LinkEnd::LinkEnd;
    static constexpr std::uint32_t kLocalAddress = 0x0100007F;

    void negotiateV4() {
        greet(wire::kProtocolV4);
        readGreeting();
        sendBlock(wire::daemonProposal());
        sendBlock(wire::daemonStep(readBlock()).block);
    }
    /// Answers the session's introduction; `address` is what it is told about itself.
    void introduce(std::uint32_t address = kLocalAddress, std::uint16_t port = 1234) {
        readMessage();
        send(wire::buildReply(address, port));
        readMessage();
    }
    void welcome() {
        negotiateV4();
        introduce();
    }
};

/// A daemon that does exactly what a test says: one script for each connection, in order, on a
/// thread of its own. A connection is closed when its script returns; after the last script nobody
/// accepts.
class ScriptedDaemon {
  public:
    using Script = std::function<void(PeerLink&)>;

    explicit ScriptedDaemon(std::vector<Script> scripts) : scripts_(std::move(scripts)) {
        int error = 0;
        listener_ = platform::listenTcp({platform::kLoopbackAddress, 0}, error);
        port_ = platform::localEndpoint(listener_.get())->port;
        thread_ = std::thread([this] { serve(); });
    }
    explicit ScriptedDaemon(Script script)
        : ScriptedDaemon(std::vector<Script>{std::move(script)}) {}
    ~ScriptedDaemon() { finish(); }
    ScriptedDaemon(const ScriptedDaemon&) = delete;
    ScriptedDaemon& operator=(const ScriptedDaemon&) = delete;

    [[nodiscard]] std::string text() const { return "tcp:127.0.0.1:" + std::to_string(port_); }
    [[nodiscard]] std::uint16_t port() const { return port_; }

    /// Waits for the running script; scripts that no connection asked for are not run.
    void finish() {
        if (!thread_.joinable()) return;
        stopping_ = true;
        int error = 0;
        const platform::Socket nudge = platform::createTcpSocket(error);
        platform::connectSocket(nudge.get(), {platform::kLoopbackAddress, port_});
        thread_.join();
    }

  private:
    void serve() {
        for (const Script& script : scripts_) {
            int error = 0;
            PeerLink link(platform::acceptTcp(listener_.get(), error));
            if (stopping_) return;
            script(link);
        }
        listener_.reset();
    }

    std::vector<Script> scripts_;
    platform::Socket listener_;
    std::uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace kvx::test
