#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rva/DaemonFigures.h"
#include "rva/History.h"
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
    /// What the bus is called, which does not change.
    Observations(std::string daemon = {}, std::string domain = {})
        : daemonAddress_(std::move(daemon)), domain_(std::move(domain)) {}

    void hearPacket(std::span<const unsigned char> packet, Milliseconds now);
    void hearMember(const beats::MemberBeat& beat, Milliseconds now);
    void hearAdvisory(std::string_view subject);

    /// The session is up from `gainSession` to `loseSession`.
    void gainSession();
    void loseSession();

    void showDaemon(const DaemonFigures& daemon);
    /// An array of the hosts that are joined by the bridge.
    void showHosts(Json hosts);

    void setInterval(unsigned seconds);
    /// Adds what is known now to the history.
    History::Entry note();

    bool isReady() const;

    /// The services with recent beats, as of `now`.
    std::vector<beats::Service> services(Milliseconds now);
    Figures figures(Milliseconds now);

    /// The documents of the HTTP interface, in one line each.
    std::string servicesJson();
    std::string connectionJson() const;
    std::string busJson() const;
    std::string historyJson() const;

  private:
    [[nodiscard]] Json connection() const;

    const std::string daemonAddress_;
    const std::string domain_;
    mutable std::mutex mutex_;

    // Guarded by mutex_.
    beats::BeatTable table_;
    bool ready_ = false;
    std::uint64_t lostSessions_ = 0;
    std::uint64_t messages_ = 0;
    std::uint64_t warnings_ = 0;
    std::uint64_t errors_ = 0;
    std::int64_t sinceMs_ = 0;  // when `ready_` changed, since the epoch
    DaemonFigures daemon_;
    Json hosts_ = Json::array();
    History history_;
};

}  // namespace kvx::rva
