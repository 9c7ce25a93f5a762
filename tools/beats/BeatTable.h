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

#include "tools/beats/GroupTable.h"

namespace kvx::beats {

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

inline constexpr Milliseconds kTolerance = 1'000;  ///< allowed delay of a beat

/// One process of a service, from its beats and those of its group. Times are of the caller's
/// clock.
struct Service {
    Beat beat;  ///< the last one
    Milliseconds firstHeard = 0;
    Milliseconds lastHeard = 0;
    std::uint64_t beats = 0;
    std::uint64_t missedBefore = 0;  ///< missing between received beats
    Milliseconds awaitedSince = 0;   ///< the last beat, or when listening was resumed after it
    std::optional<Member> member{};  ///< of its group, when that is known

    [[nodiscard]] Milliseconds age(Milliseconds now) const { return now - lastHeard; }
    /// Missing beats since the last one.
    [[nodiscard]] std::uint64_t overdue(Milliseconds now) const;
    /// Missing beats since the first one.
    [[nodiscard]] std::uint64_t missed(Milliseconds now) const {
        return missedBefore + overdue(now);
    }
    /// Missing beats, of either kind.
    [[nodiscard]] bool isSilent(Milliseconds now) const {
        return overdue(now) > 0 || (member && member->isSilent(now));
    }
    /// Without a member: is or was primary.
    [[nodiscard]] bool isPrimary() const {
        return member ? member->isPrimary : beat.hasBeenPrimary;
    }
};

/// The services with recent beats: one entry for each process, fed with the packets on the
/// heartbeat subject and the beats of groups.
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

    /// `wallMs` is the time since the epoch at `now`.
    void hear(const MemberBeat& beat, Milliseconds now, std::int64_t wallMs) {
        groups_.hear(beat, now, wallMs);
    }

    /// After a time in which nothing could be heard: nobody has missed a beat in it.
    void resume(Milliseconds now);

    /// Drops the entries that were silent for too long.
    void forgetSilent(Milliseconds now);

    /// All entries, in order of service, domain, host and pid. A process whose id another host has
    /// in the same domain has no member: members do not name their hosts.
    [[nodiscard]] std::vector<Service> services(Milliseconds now) const;

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
    GroupTable groups_;
};

/// "primary" or "backup".
[[nodiscard]] const char* roleOf(const Service& service);

/// A service as one JSON object, as `docs/http.md` defines it. Bytes that are not UTF-8 become
/// replacement characters.
[[nodiscard]] std::string serviceAsJson(const Service& service, Milliseconds now);

}  // namespace kvx::beats
