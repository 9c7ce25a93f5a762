#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <span>

#include "rvd/State.h"

namespace kvx::rvd {

/// The daemon's counters; `counterTable` has their meaning.
enum class Counter : std::uint8_t {
    ConnectionsAccepted,
    ConnectionsOpen,
    ConnectionsFailed,
    ConnectionsTimedOut,
    ConnectionsRefused,
    ConnectionsNotAllowed,
    ConnectionsEvicted,
    SessionsOpen,
    ListensOpen,
    MessagesReceived,
    BytesReceived,
    MessagesUnreadable,
    MessagesReserved,
    MessagesUnmatched,
    MessagesMatched,
    MessagesDelivered,
    BytesDelivered,
    MessagesWaiting,
    DroppedQueue,
    DroppedMemory,
    DroppedEnded,
    DroppedShutdown,
    LossNotices,
    FollowersOpen,
    InterestSnapshots,
    Inquiries,
    KeepalivesSent,
    Count
};

struct CounterInfo {
    const char* name;
    const char* unit;
    const char* meaning;  ///< one line
};

/// One row per counter, in the order of `Counter`: the names in logs and the text of the manual.
[[nodiscard]] std::span<const CounterInfo> counterTable();

/// The counters of one daemon. Loop thread only.
class Counters {
  public:
    void add(Counter counter, std::uint64_t amount = 1) { values_[index(counter)] += amount; }
    void subtract(Counter counter, std::uint64_t amount = 1) { values_[index(counter)] -= amount; }
    void set(Counter counter, std::uint64_t value) { values_[index(counter)] = value; }
    [[nodiscard]] std::uint64_t operator[](Counter counter) const {
        return values_[index(counter)];
    }

    void save(StateWriter& state) const;
    void restore(StateReader& state);

    /// Messages dropped for any cause.
    [[nodiscard]] std::uint64_t dropped() const;

  private:
    static std::size_t index(Counter counter) { return static_cast<std::size_t>(counter); }

    std::array<std::uint64_t, static_cast<std::size_t>(Counter::Count)> values_{};
};

/// Prints `counterTable`, one line a counter: what `rvd --counters` shows.
void printCounterTable(std::ostream& out);

}  // namespace kvx::rvd
