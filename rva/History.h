#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <optional>

#include "rva/DaemonFigures.h"

namespace kvx::rva {

/// Figures of the last hour, one entry for each question to the daemon. Not thread-safe.
class History {
  public:
    static constexpr std::array<const char*, 11> kSeries = {
        "messages_in_rate", "bytes_in_rate",    "messages_out_rate", "bytes_out_rate",
        "dropped_rate",     "waiting_messages", "sessions",          "listens",
        "services",         "silent_services",  "memory_bytes"};

    struct Entry {
        std::int64_t time = 0;  ///< seconds since the epoch
        std::array<std::optional<double>, kSeries.size()> values{};
    };

    /// Sets how many entries an hour has. Before the first one.
    void setInterval(unsigned seconds) { interval_ = seconds; }

    /// Adds what the daemon says of itself, of which rates are made with what it said before.
    const Entry& add(const DaemonFigures& daemon, std::uint64_t services, std::uint64_t silent,
                     std::int64_t time, platform::Milliseconds now);

    /// As `GET /api/history` answers.
    [[nodiscard]] Json columns() const;
    /// As the event `history` has it.
    [[nodiscard]] static Json entryJson(const Entry& entry);

  private:
    static constexpr std::size_t kRates = 5;
    using Totals = std::array<std::uint64_t, kRates>;

    unsigned interval_ = 10;
    std::deque<Entry> entries_;
    std::optional<Totals> before_;
    std::uint64_t started_ = 0;  // of the daemon that `before_` is of
    platform::Milliseconds since_ = 0;
};

}  // namespace kvx::rva
