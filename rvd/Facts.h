#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "rvd/Counters.h"
#include "rvd/Delays.h"
#include "rvd/MemoryAccount.h"
#include "rvd/Outbox.h"
#include "rvd/Recorder.h"

namespace kvx::rvd {

/// Messages and bytes, since the start or a second.
struct Flow {
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
};

/// One session, at this moment.
struct SessionFacts {
    std::uint64_t number = 0;  ///< of all connections, in the order of accepting
    std::string name;          ///< as the session has said
    std::string address;       ///< of the peer
    std::uint64_t pid = 0;     ///< 0: the system does not tell
    std::string user;          ///< its id
    std::string program;       ///< the name of its file; empty when that may not be looked at
    std::string service;
    std::string network;
    platform::Milliseconds age = 0;
    bool follows = false;  ///< the interest of its space
    std::uint64_t listens = 0;
    std::uint64_t patterns = 0;
    std::uint64_t memory = 0;  ///< bytes, shared messages in full
    std::uint64_t waiting = 0;
    std::uint64_t waitingBytes = 0;
    Outbox::Totals totals;
    Flow published;
    std::uint64_t publishedRate = 0;  ///< messages in the last second
    std::uint64_t deliveredRate = 0;
    std::optional<platform::Milliseconds> waitingFor;  ///< since messages wait at each look
    std::optional<platform::Milliseconds> behindFor;   ///< since it loses and does not keep up
    std::optional<platform::Milliseconds> lossAge;     ///< since something was dropped
};

/// The daemon itself, at this moment.
struct StatusFacts {
    std::uint64_t pid = 0;
    std::vector<std::string> addresses;
    std::int64_t started = 0;  ///< milliseconds since the epoch
    platform::Milliseconds age = 0;
    std::uint64_t replacements = 0;     ///< by a successor, since `started`
    std::uint64_t replaceFailures = 0;  ///< of this process
    std::string replaceError;           ///< of the last failure
    std::uint64_t queueLimit = 0;       ///< bytes
    std::uint64_t descriptors = 0;      ///< connections for which there are descriptors
    std::uint64_t memoryLimit = 0;      ///< bytes
    std::uint64_t memoryUsed = 0;
    MemoryAccount::Kinds memory;
    Counters counters;
    const Counters* rates = nullptr;  ///< what they have grown by in the last second
    const Delays* delays = nullptr;
    const Recorder* recorder = nullptr;  ///< null: nothing is recorded
};

/// What reports tell of. Loop thread only.
class Observed {
  public:
    virtual ~Observed() = default;
    /// The time that all ages are of.
    [[nodiscard]] virtual platform::Milliseconds now() const = 0;
    [[nodiscard]] virtual StatusFacts status() const = 0;
    /// Of the first connection after that number, whether it is a session or not; nothing at the
    /// end.
    [[nodiscard]] virtual std::optional<SessionFacts> sessionAfter(std::uint64_t number) const = 0;
};

}  // namespace kvx::rvd
