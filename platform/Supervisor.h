#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Descriptor.h"
#include "platform/Export.h"
#include "platform/Socket.h"

/// Whoever supervises this process as a service, such as systemd: what it is told, as datagrams to
/// the socket that `NOTIFY_SOCKET` names, and what it has given. Without one nothing happens. What
/// changes the environment is called before this process has other threads.
namespace kvx::platform {

/// This process serves.
KVX_API void tellReady();

/// Process `pid` is the service from now on. Returns when that is known, or after a second: else
/// the end of this process might be learnt first, and another one be started.
KVX_API void tellServing(unsigned long pid);

/// This process does its work. Neither waits nor allocates memory. Any thread.
KVX_API void tellAlive();

/// How often to tell that: half of the time after which the supervisor ends a process that does
/// not; nothing when it does not ask this one. Changes the environment so that a successor is asked
/// as well.
[[nodiscard]] KVX_API std::optional<Milliseconds> aliveInterval();

/// A listening stream socket that this process was started with.
struct PassedSocket {
    Descriptor socket;
    Endpoint endpoint{};  ///< of TCP
    std::string path;     ///< of a unix socket, else empty
};

/// Takes the sockets that this process was started with, which no program that it starts inherits
/// any more, and removes what the environment says of them. Sets `error`, and returns none, when
/// one of them is no listening stream socket of IPv4 or of a path. Call it before this process
/// opens descriptors.
[[nodiscard]] KVX_API std::vector<PassedSocket> takePassedSockets(std::string& error);

/// The environment of a program that this process starts: without what the supervisor has said to
/// this process, unless it is its successor. Ends with a null pointer; holds until the next change
/// of the environment.
[[nodiscard]] std::vector<char*> environmentOfChild(bool isSuccessor);

}  // namespace kvx::platform
