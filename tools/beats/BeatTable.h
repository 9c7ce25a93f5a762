#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "platform/Clock.h"

namespace kvx::beats {

using platform::Milliseconds;

/// The content of one heartbeat.
struct Beat {
    std::string service;
    std::string domain;
    std::string host;
    std::int64_t pid = 0;
    /// The beat's type. False: a backup, or a primary since its last beat. True: is or was primary;
    /// never false again.
    bool hasBeenPrimary = false;
};

/// The beat in a transport packet; nothing for any other bytes.
///
/// A beat is a packet of version 0, plain and the only one of its batch, whose one record holds the
/// texts service, domain and host (of at most 255 bytes each), a pid above 0 and a type of 0 or 1.
/// Further fields are allowed, for later versions.
[[nodiscard]] std::optional<Beat> readBeat(std::span<const unsigned char> packet);

inline constexpr Milliseconds kTolerance = 1'000;      ///< allowed delay of a beat
inline constexpr Milliseconds kForgetAfter = 600'000;  ///< of silence
inline constexpr std::size_t kMostServices = 10'000;

/// One process of a service, from its beats. Times are of the caller's clock.
struct Service {
    Beat beat;  ///< the last one
    Milliseconds firstHeard = 0;
    Milliseconds lastHeard = 0;
    std::uint64_t beats = 0;
    std::uint64_t missedBefore = 0;  ///< missing between received beats

    [[nodiscard]] Milliseconds age(Milliseconds now) const { return now - lastHeard; }
    /// Missing beats since the last one.
    [[nodiscard]] std::uint64_t overdue(Milliseconds now) const;
    /// Missing beats since the first one.
    [[nodiscard]] std::uint64_t missed(Milliseconds now) const {
        return missedBefore + overdue(now);
    }
};

/// The services with recent beats: one entry for each process, fed with the packets on the
/// heartbeat subject.
///
/// Packets and times in, values out; no socket and no clock inside. An entry that is silent for ten
/// minutes is dropped, and of 10,000 entries the one silent longest when a new one comes. One
/// thread at a time.
class BeatTable {
  public:
    struct Counters {
        std::uint64_t heard = 0;      ///< beats
        std::uint64_t ignored = 0;    ///< packets that are not beats
        std::uint64_t forgotten = 0;  ///< entries dropped for either reason
    };

    /// Takes one packet. False, and counted, when it is not a beat.
    bool hear(std::span<const unsigned char> packet, Milliseconds now);

    /// Drops the entries that were silent for too long.
    void forgetSilent(Milliseconds now);

    /// All entries, in order of service, domain, host and pid.
    [[nodiscard]] std::vector<Service> services() const;

    [[nodiscard]] std::size_t size() const { return index_.size(); }
    /// The number of entries with an overdue beat.
    [[nodiscard]] std::size_t silent(Milliseconds now) const;

    [[nodiscard]] const Counters& counters() const { return counters_; }

  private:
    struct Key {
        std::string service;
        std::string domain;
        std::string host;
        std::int64_t pid;
        bool operator<(const Key& other) const {
            return std::tie(service, domain, host, pid) <
                   std::tie(other.service, other.domain, other.host, other.pid);
        }
    };
    using Entries = std::list<Service>;

    static Key keyOf(const Beat& beat) { return {beat.service, beat.domain, beat.host, beat.pid}; }
    void insert(const Beat& beat, Milliseconds now);
    void dropOldest();

    Entries entries_;  // the one silent longest first
    std::map<Key, Entries::iterator> index_;
    Counters counters_;
};

/// "primary" for a process that is or was primary, else "backup".
[[nodiscard]] const char* roleOf(const Beat& beat);

/// A service as one JSON object: service, domain, host, pid, role, the seconds since its last and
/// its first beat, the beats heard, missed in all and overdue now. Bytes that are not UTF-8 become
/// replacement characters.
[[nodiscard]] std::string serviceAsJson(const Service& service, Milliseconds now);

}  // namespace kvx::beats
