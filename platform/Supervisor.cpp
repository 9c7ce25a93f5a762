// The protocol is a few lines of text, which systemd documents as stable. The library that speaks
// it waits in each call until the supervisor reads; one that has stopped reading would stop the
// loop that tells it.

#include "platform/Supervisor.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "platform/DescriptorChannel.h"

namespace kvx::platform {
namespace {

constexpr const char* kNotifySocket = "NOTIFY_SOCKET";
constexpr const char* kWatchdogTime = "WATCHDOG_USEC";
constexpr const char* kWatchdogPid = "WATCHDOG_PID";
constexpr const char* kListenPid = "LISTEN_PID";
constexpr const char* kListenCount = "LISTEN_FDS";
constexpr const char* kListenNames = "LISTEN_FDNAMES";

constexpr int kFirstPassed = 3;
constexpr std::uint64_t kMostPassed = 1'000;
constexpr Milliseconds kHeardMs = 1'000;
constexpr std::uint64_t kMostIntervalMs = 3'600'000;

// The number in a variable of the environment, or 0.
std::uint64_t numberIn(const char* variable) {
    const char* const value = std::getenv(variable);
    if (value == nullptr) return 0;
    const std::string_view text = value;
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

// Connected to the supervisor; without a descriptor when there is none.
Descriptor supervisor() {
    const char* const name = std::getenv(kNotifySocket);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = name == nullptr ? 0 : std::strlen(name);
    if (length < 2 || length >= sizeof address.sun_path) return {};
    if (name[0] != '/' && name[0] != '@') return {};
    std::memcpy(address.sun_path, name, length);
    if (name[0] == '@') address.sun_path[0] = '\0';  // no file: a name of the system's own
    Descriptor end(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    const auto* const plain = reinterpret_cast<const sockaddr*>(&address);
    if (!end || ::connect(end.get(), plain, size) != 0) return {};
    return end;
}

bool tell(std::string_view text, Milliseconds timeout, std::span<const int> descriptors = {}) {
    Descriptor end = supervisor();
    if (!end) return false;
    return DescriptorChannel(std::move(end))
        .send({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, descriptors,
              timeout);
}

// The supervisor closes what came with a barrier when it has read all before.
void awaitHeard() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    const Descriptor here(ends[0]);
    {
        const Descriptor there(ends[1]);
        if (!tell("BARRIER=1", kHeardMs, std::span(&ends[1], 1))) return;
    }
    pollfd entry{here.get(), 0, 0};  // that it is closed is told anyway
    (void)::poll(&entry, 1, static_cast<int>(kHeardMs));
}

bool isListeningStream(int descriptor) {
    int isListening = 0;
    int type = 0;
    socklen_t length = sizeof isListening;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &isListening, &length) == 0 &&
           ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && isListening != 0 &&
           type == SOCK_STREAM;
}

// Fills in where it listens. False for what is no socket as this process serves.
bool describe(PassedSocket& passed) {
    const int descriptor = passed.socket.get();
    if (!isListeningStream(descriptor)) return false;
    union {
        sockaddr plain;
        sockaddr_in tcp;
        sockaddr_un local;
    } name{};
    socklen_t length = sizeof name;
    if (::getsockname(descriptor, &name.plain, &length) != 0) return false;
    if (name.plain.sa_family == AF_INET) {
        passed.endpoint = {ntohl(name.tcp.sin_addr.s_addr), ntohs(name.tcp.sin_port)};
        return true;
    }
    if (name.plain.sa_family != AF_UNIX) return false;
    const auto room = std::span(name.local.sun_path);
    passed.path.assign(room.begin(), std::ranges::find(room, '\0'));
    return !passed.path.empty();
}

}  // namespace

void tellReady() {
    (void)tell("READY=1", kHeardMs);
}

void tellServing(unsigned long pid) {
    if (tell("MAINPID=" + std::to_string(pid), kHeardMs)) awaitHeard();
}

void tellAlive() {
    (void)tell("WATCHDOG=1", 0);
}

// A successor has another number than the one that is named, and no other process has the time.
std::optional<Milliseconds> aliveInterval() {
    const std::uint64_t time = numberIn(kWatchdogTime);
    const std::uint64_t pid = numberIn(kWatchdogPid);
    ::unsetenv(kWatchdogPid);
    if (time != 0 && (pid == 0 || pid == static_cast<std::uint64_t>(::getpid()))) {
        return static_cast<Milliseconds>(
            std::clamp<std::uint64_t>(time / 2'000, 1, kMostIntervalMs));
    }
    ::unsetenv(kWatchdogTime);
    return std::nullopt;
}

std::vector<PassedSocket> takePassedSockets(std::string& error) {
    const bool isMeant = numberIn(kListenPid) == static_cast<std::uint64_t>(::getpid());
    const std::uint64_t count = isMeant ? std::min(numberIn(kListenCount), kMostPassed) : 0;
    for (const char* name : {kListenPid, kListenCount, kListenNames}) ::unsetenv(name);
    std::vector<PassedSocket> all;
    for (int i = kFirstPassed; i < kFirstPassed + static_cast<int>(count); ++i) {
        PassedSocket& passed = all.emplace_back(PassedSocket{Descriptor(i), {}, {}});
        if (::fcntl(i, F_SETFD, FD_CLOEXEC) == 0 && describe(passed)) continue;
        error = "descriptor " + std::to_string(i) +
                ", with which it was started, is no listening socket of IPv4 or of a path";
        return {};
    }
    return all;
}

std::vector<char*> environmentOfChild(bool isSuccessor) {
    static constexpr std::array kAll{kNotifySocket, kWatchdogTime, kWatchdogPid,
                                     kListenPid,    kListenCount,  kListenNames};
    const auto isOfSupervisor = [](const char* entry) {
        return std::ranges::any_of(kAll, [entry](std::string_view name) {
            return std::strncmp(entry, name.data(), name.size()) == 0 && entry[name.size()] == '=';
        });
    };
    std::vector<char*> entries;
    for (char** entry = ::environ; *entry != nullptr; ++entry) {
        if (isSuccessor || !isOfSupervisor(*entry)) entries.push_back(*entry);
    }
    entries.push_back(nullptr);
    return entries;
}

}  // namespace kvx::platform
