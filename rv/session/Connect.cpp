// From a daemon's address text to a link: resolving, connecting, starting a local daemon, the
// greeting, the version and the queue's parameters.
//
// An attempt succeeds when the daemon's greeting has arrived. There are four attempts, with a pause
// after each failure; after the first failure a local daemon is started. A failure after the
// greeting is final, with one exception: with a daemon that offers version 3, version 4 is tried
// first, and then version 3 on a second connection. A signal ends a reconnection in its pauses, so
// that the loop can handle it.

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "platform/Clock.h"
#include "platform/File.h"
#include "platform/Process.h"
#include "platform/Socket.h"
#include "platform/UnixSocket.h"
#include "rv/error/rvCodes.h"
#include "rv/error/rvErrors.h"
#include "rv/link/LinkIo.h"
#include "rv/session/ConnectReport.h"
#include "rv/session/SessionParts.h"
#include "rv/wire/DaemonText.h"
#include "rv/wire/Negotiation.h"

namespace kvx::session {

namespace {

using link::Deadline;
using platform::Socket;

constexpr std::string_view kScheme = "tcp:";
constexpr std::size_t kMaxHostLength = 127;  // characters; longer names are truncated
constexpr int kAttempts = 4;
constexpr platform::Milliseconds kPauseMs = 2'000;    // after a failed attempt
constexpr platform::Milliseconds kPauseStepMs = 50;   // between two looks for a signal
constexpr platform::Milliseconds kConnectMs = 5'000;  // for one connect
constexpr const char* kDaemonProgram = "rvd";
constexpr platform::Milliseconds kCrowdedStepMs = 10;  // between two tries, while others wait

struct Greeted {
    int code = session_code::kNotConnected;
    Socket socket;
    wire::Greeting greeting;
};

bool isUnderWay(int error) {
    return error == platform::socket_error::kWouldBlock ||
           error == platform::socket_error::kInProgress;
}

// Nothing is under way on a unix socket whose listener has others to accept: it is tried again.
int connectUnixBefore(const Deadline& deadline, const Socket& socket, const std::string& path) {
    int error = platform::connectUnix(socket.get(), path);
    while (error == platform::socket_error::kWouldBlock && !deadline.passed()) {
        platform::sleepMs(kCrowdedStepMs);
        error = platform::connectUnix(socket.get(), path);
    }
    return error == platform::socket_error::kWouldBlock ? platform::socket_error::kTimedOut : error;
}

std::string notOfTheForm() {
    return std::string("the address is not of the form ") + wire::kDaemonForms;
}

std::optional<wire::Greeting> readGreeting(const Socket& socket) {
    wire::GreetingBytes bytes{};
    if (!link::readExactly(socket.get(), bytes, Deadline::in(wire::kClientHandshakeMs)))
        return std::nullopt;
    const wire::Greeting greeting = wire::decodeGreeting(bytes);
    return greeting.first == 0 ? std::optional(greeting) : std::nullopt;
}

std::optional<std::string> executableIn(const std::string& directory, const std::string& name) {
    if (directory.empty()) return std::nullopt;
    std::string path = directory + "/" + name;
    return platform::isExecutable(path) ? std::optional(std::move(path)) : std::nullopt;
}

// Searches beside the running program, then in $VEK_HOME/bin, then on PATH; a name with a slash is
// a file.
std::optional<std::string> findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    if (auto beside = executableIn(platform::programDirectory(), name)) return beside;
    if (const char* home = std::getenv("VEK_HOME"); home != nullptr && *home != '\0')
        if (auto installed = executableIn(std::string(home) + "/bin", name)) return installed;
    return platform::findOnPath(name);
}

// Starts the program at `path` as a daemon. Returns 0 or the system's error number.
int start(const std::string& path, const std::string& name, const char* daemonText) {
    const platform::Program command{path, {name, "-listen", daemonText}, ""};
    const auto started = platform::startDaemon(command, name.substr(name.rfind('/') + 1));
    return started.pid != 0 ? 0 : started.error;
}

std::atomic<unsigned> daemonsStarted{0};

bool startLocalDaemon(const char* daemon, ConnectReport& report) {
    const char* const wish = std::getenv("KVX_START_DAEMON");
    if (wish != nullptr && std::string_view(wish) == "0") {
        report.add("none was started, since KVX_START_DAEMON is 0");
        return false;
    }
    const auto path = findProgram(kDaemonProgram);
    if (!path) {
        report.add("no program rvd to start is beside this one, in $VEK_HOME/bin or on the PATH");
        return false;
    }
    if (const int error = start(*path, kDaemonProgram, daemon); error != 0) {
        report.add(*path + " could not be started: " + std::generic_category().message(error));
        return false;
    }
    report.add("started " + *path);
    ++daemonsStarted;
    return true;
}

// False when it was cut short.
bool pauseAfterAttempt(const SessionState& session) {
    const Deadline deadline = Deadline::in(kPauseMs);
    while (!deadline.passed()) {
        if (isCutShort(session)) return false;
        platform::sleepMs(std::min(deadline.left(), kPauseStepMs));
    }
    return true;
}

// One attempt. False when another one may do better.
bool greet(const SessionState& session, Greeted& result, ConnectReport& report) {
    int error = 0;
    result.socket = newSocketFor(session.address, error);
    if (!result.socket) {
        report.attemptFailed(socketText(error));
        result.code = session_code::kInitFailed;
        return true;
    }
    error = connectWithin(result.socket, session.address, kConnectMs);
    const auto greeting = error == 0 ? readGreeting(result.socket) : std::nullopt;
    if (!greeting) {
        report.attemptFailed(error == 0 ? "connected, but no greeting of a bus daemon came"
                                        : socketText(error));
        return false;
    }
    result.greeting = *greeting;
    result.code =
        wire::isKnownVersion(*greeting) ? session_code::kOk : session_code::kVersionMismatch;
    return true;
}

Greeted connectGreeted(const SessionState& session) {
    ConnectReport& report = ConnectReport::ofThisThread();
    Greeted result;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        if (greet(session, result, report)) return result;
        result.socket.reset();
        if (attempt == 1 && session.address.local &&
            !startLocalDaemon(session.daemon.c_str(), report))
            return result;
        if (!pauseAfterAttempt(session)) return result;
    }
    if (!session.address.local) report.add("none was started, since the address names a host");
    return result;
}

bool answerGreeting(const SessionState& session, const Socket& socket, std::uint32_t version) {
    const wire::Greeting answer{0, version, session.address.local ? 1U : 0U};
    return link::writeExactly(socket.get(), wire::encode(answer),
                              Deadline::in(wire::kClientHandshakeMs));
}

bool speakV4(SessionState& session, Socket socket) {
    ipq_Queue queue = nullptr;
    if (!answerGreeting(session, socket, wire::kProtocolV4) ||
        ipq_NegotiateV4(&queue, session, std::move(socket)) != IPQ_SETUP_OK)
        return false;
    session.adoptQueue(queue);
    return true;
}

int speakV3(SessionState& session) {
    Greeted again = connectGreeted(session);
    if (again.code != 0) return again.code;
    if (again.greeting.version != wire::kProtocolV3) return session_code::kVersionMismatch;
    ipq_Queue queue = nullptr;
    if (!answerGreeting(session, again.socket, wire::kProtocolV3) ||
        ipq_CreateV3(&queue, session, std::move(again.socket)) != IPQ_SETUP_OK)
        return session_code::kInitFailed;
    session.adoptQueue(queue);
    return session_code::kOk;
}

std::optional<DaemonEndpoint> parseUnix(std::string_view path, ConnectReport& report) {
    if (const std::string problem = wire::problemWithUnixPath(path); !problem.empty()) {
        report.add(problem);
        return std::nullopt;
    }
    return DaemonEndpoint{.path = std::string(path)};
}

}  // namespace

Socket newSocketFor(const DaemonEndpoint& address, int& error) {
    const bool isTcp = address.path.empty();
    Socket socket = isTcp ? platform::createTcpSocket(error) : platform::createUnixSocket(error);
    if (!socket) return socket;
    if (isTcp) {
        platform::setReuseAddress(socket.get(), true);
        platform::setNoDelay(socket.get(), true);
    }
    platform::setNonBlocking(socket.get(), true);
    return socket;
}

int connectWithin(const Socket& socket, const DaemonEndpoint& address,
                  platform::Milliseconds limit) {
    const Deadline deadline = Deadline::in(limit);
    if (!address.path.empty()) return connectUnixBefore(deadline, socket, address.path);
    const int error = platform::connectSocket(socket.get(), address.endpoint);
    if (error == 0 || !isUnderWay(error)) return error;
    const bool isDone =
        link::waitUntil(socket.get(), platform::kReadable | platform::kWritable, deadline);
    return isDone ? platform::pendingError(socket.get()) : platform::socket_error::kTimedOut;
}

// The table of socket errors has no text for a missing permission.
std::string socketText(int error) {
    if (error == platform::socket_error::kAccessDenied) return "Permission denied";
    return error < platform::socket_error::kInterrupted ? std::generic_category().message(error)
                                                        : rv_SocketErrorText(error);
}

std::optional<DaemonEndpoint> parseDaemon(const char* text) {
    const std::string_view daemon(text);
    ConnectReport& report = ConnectReport::ofThisThread();
    report.begin();
    if (const auto path = wire::unixPathOf(daemon)) return parseUnix(*path, report);
    if (!daemon.starts_with(kScheme)) {
        report.add(notOfTheForm());
        return std::nullopt;
    }
    const std::size_t portColon = daemon.rfind(':');
    DaemonEndpoint address;
    address.endpoint.port =
        static_cast<std::uint16_t>(std::strtol(text + portColon + 1, nullptr, 10));
    if (portColon < kScheme.size()) return address;
    const std::string host(
        daemon.substr(kScheme.size(), portColon - kScheme.size()).substr(0, kMaxHostLength));
    const auto resolved = host.empty() ? std::nullopt : platform::resolveHost(host);
    if (!resolved) {
        report.add(host.empty() ? notOfTheForm() : "no host is named '" + host + "'");
        return std::nullopt;
    }
    address.local = *resolved == 0;
    if (!address.local) address.endpoint.address = *resolved;
    return address;
}

int connectLink(SessionState& session) {
    Greeted first = connectGreeted(session);
    if (first.code != 0) return first.code;
    if (speakV4(session, std::move(first.socket))) return session_code::kOk;
    return first.greeting.version == wire::kProtocolV3 ? speakV3(session)
                                                       : session_code::kInitFailed;
}

}  // namespace kvx::session

unsigned rv_DaemonsStarted() {
    return kvx::session::daemonsStarted;
}

bool rv_StartDaemon(const char* program, const char* daemonText) {
    if (program == nullptr || *program == '\0' || daemonText == nullptr) return false;
    const std::string name(program);
    const auto path = kvx::session::findProgram(name);
    return path && kvx::session::start(*path, name, daemonText) == 0;
}
