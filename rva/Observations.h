#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <string_view>
#include <vector>

#include "tools/beats/BeatTable.h"

namespace kvx::rva {

using platform::Milliseconds;

/// What the agent has seen on the bus, as figures at one moment.
struct Figures {
    bool ready = false;
    std::uint64_t lostSessions = 0;
    beats::BeatTable::Counters beats;
    std::uint64_t services = 0;
    std::uint64_t silentServices = 0;
    std::uint64_t messages = 0;
    std::uint64_t warnings = 0;
    std::uint64_t errors = 0;
};

/// What the bus's thread has seen and the HTTP thread tells. Any thread: this is all that the two
/// sides share.
class Observations {
  public:
    void hearPacket(std::span<const unsigned char> packet, Milliseconds now);
    void hearAdvisory(std::string_view subject);

    /// The session is up from `gainSession` until `loseSession`, and so again.
    void gainSession();
    void loseSession();

    bool isReady() const;

    /// Who has beaten lately, as of `now`.
    std::vector<beats::Service> services(Milliseconds now);
    Figures figures(Milliseconds now);

  private:
    mutable std::mutex mutex_;

    // Guarded by mutex_.
    beats::BeatTable table_;
    bool ready_ = false;
    std::uint64_t lostSessions_ = 0;
    std::uint64_t messages_ = 0;
    std::uint64_t warnings_ = 0;
    std::uint64_t errors_ = 0;
};

}  // namespace kvx::rva
