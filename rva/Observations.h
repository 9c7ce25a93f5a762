#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <string_view>
#include <vector>

#include "rva/DaemonFigures.h"
#include "tools/beats/BeatTable.h"

namespace kvx::rva {

using platform::Milliseconds;

/// Figures of the bus at one moment.
struct Figures {
    bool ready = false;
    std::uint64_t lostSessions = 0;
    beats::BeatTable::Counters beats;
    std::uint64_t services = 0;
    std::uint64_t silentServices = 0;
    std::uint64_t messages = 0;
    std::uint64_t warnings = 0;
    std::uint64_t errors = 0;
    /// At most `Rows::kShown` services, the longest silent first.
    std::vector<beats::Service> quietest;
    Milliseconds now = 0;
    DaemonFigures daemon;
};

/// What the main thread has received and the HTTP thread reports: their only shared state. Any
/// thread.
class Observations {
  public:
    void hearPacket(std::span<const unsigned char> packet, Milliseconds now);
    void hearAdvisory(std::string_view subject);

    /// The session is up from `gainSession` to `loseSession`.
    void gainSession();
    void loseSession();

    void showDaemon(const DaemonFigures& daemon);

    bool isReady() const;

    /// The services with recent beats, as of `now`.
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
    DaemonFigures daemon_;
};

}  // namespace kvx::rva
