// Who listens: the agent, and the daemon. Each is asked on a plain connection first, which nobody
// can hold up; the library's own handshake with the daemon follows when the greeting is right.

#include "tools/kvx/Examination.h"

#include <fmt/format.h>

#include <charconv>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "rv/error/rvErrors.h"
#include "rv/message/WireFormat.h"
#include "rv/rv.h"
#include "rv/wire/Limits.h"
#include "tools/kvx/Nearest.h"
#include "tools/kvx/TcpProbe.h"

namespace kvx::tool {

namespace {

constexpr std::uint16_t kDefaultAgentPort = 7600;
constexpr std::size_t kStatusLine = 12;  // bytes: "HTTP/1.1 200"
constexpr double kSlowMs = 200;
constexpr const char* kAddressRule =
    "write \"daemon\" = \"tcp:PORT\", \"tcp:HOST:PORT\" or \"unix:/PATH\" in the file, or use "
    "--daemon";

struct Address {
    std::string host;  ///< empty: this one
    std::uint16_t port = 0;
    std::string path{};  ///< of a unix socket, else empty
};

std::optional<std::uint16_t> portOf(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    const bool isWhole = error == std::errc() && end == text.data() + text.size();
    return isWhole && port != 0 ? std::optional(port) : std::nullopt;
}

std::optional<Address> addressOf(std::string_view text) {
    static constexpr std::string_view kUnix = "unix:";
    if (text.starts_with("unix:/")) return Address{"", 0, std::string(text.substr(kUnix.size()))};
    static constexpr std::string_view kScheme = "tcp:";
    if (!text.starts_with(kScheme)) return std::nullopt;
    text.remove_prefix(kScheme.size());
    const auto colon = text.rfind(':');
    const auto port = portOf(colon == std::string_view::npos ? text : text.substr(colon + 1));
    if (!port || colon == 0) return std::nullopt;
    return Address{std::string(text.substr(0, colon == std::string_view::npos ? 0 : colon)), *port};
}

// The table of socket errors has no text for a missing permission.
std::string socketText(int error) {
    if (error == platform::socket_error::kAccessDenied) return "permission denied";
    if (error < platform::socket_error::kInterrupted) return std::generic_category().message(error);
    return fmt::format("{} ({})", rv_SocketErrorText(error), error);
}

std::string startingRvd(const Examination& examination, const Address& address) {
    if (!address.host.empty()) return "start rvd there, or correct host and port";
    const std::string start =
        fmt::format("start it: 'rvd -listen {}', or its unit", examination.address.daemon);
    return examination.startsDaemons ? start + "; a client here would start one by itself" : start;
}

// Whether the twelve bytes with which a daemon begins came.
bool greets(Examination& examination, TcpProbe& probe) {
    const std::string& daemon = examination.address.daemon;
    const std::string greeting = probe.receive(wire::kGreetingSize);
    const char* const another = "find out what it is ('ss -ltnp'), and correct the port";
    if (greeting.empty()) {
        examination.fail(
            probe.hasEnded()
                ? fmt::format("what listens at {} ends the connection at once", daemon)
                : fmt::format("what listens at {} does not greet within {:g} s: it is no rvd, or "
                              "one that hangs",
                              daemon, examination.options.timeoutSeconds),
            "look at its log for descriptors and memory if it is rvd; else correct the port");
        return false;
    }
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(greeting.data());
    if (greeting.size() < wire::kGreetingSize || loadBig32(bytes) != 0) {
        examination.fail(fmt::format("what listens at {} is no bus daemon: it begins with {}",
                                     daemon, quoted(greeting)),
                         another);
        return false;
    }
    const std::uint32_t version = loadBig32(bytes + 4);
    if (version == wire::kProtocolV3 || version == wire::kProtocolV4) return true;
    examination.fail(
        fmt::format("the daemon at {} speaks version {} of the link, not 3 or 4", daemon, version),
        another);
    return false;
}

bool isReached(Examination& examination, const Address& address) {
    const std::string& daemon = examination.address.daemon;
    std::uint32_t host = platform::kLoopbackAddress;
    if (!address.host.empty()) {
        examination.expect(fmt::format("the resolver does not answer for '{}'", address.host),
                           "look at /etc/resolv.conf, or use the address in dots");
        const auto resolved = platform::resolveHost(address.host);
        if (!resolved) {
            examination.fail(fmt::format("no host is named '{}'", address.host), kAddressRule);
            return false;
        }
        if (*resolved != 0) host = *resolved;
    }
    TcpProbe probe(examination.timeout());
    const int error = address.path.empty() ? probe.connect({host, address.port})
                                           : probe.connectUnix(address.path);
    if (error != 0) {
        const bool isForbidden =
            error == platform::socket_error::kAccessDenied && !address.path.empty();
        examination.fail(fmt::format("no daemon at {}: {}", daemon, socketText(error)),
                         isForbidden ? "look at the modes of the socket and of its directories"
                                     : startingRvd(examination, address));
        return false;
    }
    return greets(examination, probe);
}

// The whole handshake, as every session makes it.
void shakeHands(Examination& examination) {
    const DaemonAddress& address = examination.address;
    examination.expect(fmt::format("the daemon at {} greets, but does not complete the handshake "
                                   "within {:g} s",
                                   address.daemon, examination.options.timeoutSeconds),
                       "look at its log and its load; if it hangs, start it anew");
    const auto begin = std::chrono::steady_clock::now();
    rv_Session session = nullptr;
    const int code = rv_CreateSession(&session, nullptr, address.service.c_str(),
                                      address.network.c_str(), address.daemon.c_str());
    const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
    if (code != 0) {
        examination.fail(fmt::format("the handshake with the daemon at {} fails: {} ({})",
                                     address.daemon, rv_ErrorText(code), rv_ConnectReport()),
                         fmt::format("see 'kvx explain {}' and the daemon's log", code));
        return;
    }
    rv_Close(session);
    examination.daemonAnswers = true;
    const std::string text =
        fmt::format("{} completes the handshake in {:.1f} ms", address.daemon, time.count());
    if (time.count() > kSlowMs) {
        examination.warn(text, "look at the load of its host, and at the line");
    } else {
        examination.ok(text);
    }
}

}  // namespace

void checkAgent(Examination& examination) {
    const bool isConfigured = !examination.agentPort.empty();
    const auto port = isConfigured ? portOf(examination.agentPort) : kDefaultAgentPort;
    if (!port) {
        examination.fail(fmt::format("the agent's port '{}' is none", examination.agentPort),
                         "correct 'rva' in the file");
        return;
    }
    TcpProbe probe(examination.timeout());
    const int error = probe.connect({platform::kLoopbackAddress, *port});
    if (error != 0 && !isConfigured) return examination.ok("none is configured, and none is there");
    if (error != 0) {
        return examination.warn(fmt::format("no agent at port {}: {}", *port, socketText(error)),
                                "start rva, or its unit");
    }
    const bool isAsked = probe.send("GET /readyz HTTP/1.0\r\nHost: localhost\r\n\r\n");
    const std::string status = isAsked ? probe.receive(kStatusLine) : "";
    if (status.ends_with(" 200")) {
        examination.ok(fmt::format("rva is ready at port {}", *port));
    } else if (status.ends_with(" 503")) {
        examination.warn(fmt::format("the agent at port {} has no session with a daemon", *port),
                         "it reconnects by itself once the daemon is there");
    } else if (isConfigured) {
        examination.warn(fmt::format("what listens at port {} is no agent", *port),
                         "start rva at another port, and name it as 'rva' in the file");
    } else {
        examination.ok("none is configured; something else listens at its port");
    }
}

void checkDaemon(Examination& examination) {
    const std::string& daemon = examination.address.daemon;
    const auto address = addressOf(daemon);
    if (daemon == "-") {
        examination.fail("the daemon '-' is none: nothing can be sent", kAddressRule);
    } else if (!address) {
        examination.fail(fmt::format("{} is no address of a daemon", quoted(daemon)), kAddressRule);
    } else if (isReached(examination, *address)) {
        shakeHands(examination);
    }
}

}  // namespace kvx::tool
