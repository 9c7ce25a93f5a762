#include "rvd/Counters.h"

#include <iomanip>
#include <ostream>
#include <string_view>

namespace kvx::rvd {
namespace {

constexpr std::array<CounterInfo, static_cast<std::size_t>(Counter::Count)> kTable = {{
    {"connections.accepted", "connections", "connections taken since the start"},
    {"connections.open", "connections", "connections open now"},
    {"connections.failed", "connections", "closed because the peer broke the protocol"},
    {"connections.timed_out", "connections", "closed because the peer said nothing in time"},
    {"connections.refused", "connections",
     "turned away: no descriptors, and all others are in use"},
    {"connections.not_allowed", "connections", "turned away because of -allow or -allow-user"},
    {"connections.evicted", "connections", "closed because they held most of a full memory"},
    {"sessions.open", "sessions", "connections that have announced a service and a network"},
    {"listens.open", "listens", "listens in force, each counted as often as it was made"},
    {"messages.received", "messages", "data messages taken from peers"},
    {"bytes.received", "bytes", "bytes of those messages"},
    {"messages.unreadable", "messages", "dropped on arrival: no type, or no sound subject"},
    {"messages.reserved", "messages",
     "dropped on arrival: on a subject of the system's or the daemon's own"},
    {"messages.unmatched", "messages", "data messages that no session listened to"},
    {"messages.matched", "messages", "copies due: one for each session that listened"},
    {"messages.delivered", "messages", "copies written to a session's connection in full"},
    {"bytes.delivered", "bytes", "bytes of those copies"},
    {"messages.waiting", "messages", "copies that wait to be written"},
    {"dropped.queue", "messages", "copies dropped: the session's queue was full, or too small"},
    {"dropped.memory", "messages", "copies dropped: the daemon's memory was full"},
    {"dropped.ended", "messages", "copies still waiting when their session ended"},
    {"dropped.shutdown", "messages", "copies still waiting when the daemon ended"},
    {"loss.notices", "messages", "_RV.WARN.SYSTEM.DATALOSS messages queued for sessions"},
    {"followers.open", "sessions", "sessions that are told the interest of their space now"},
    {"interest.snapshots", "snapshots", "begun for these: once each, and again after a loss"},
    {"inquiries", "messages", "requests on _RVD.STATUS and the like"},
    {"keepalives.sent", "messages", "keepalives sent to silent peers"},
}};

}  // namespace

std::span<const CounterInfo> counterTable() {
    return kTable;
}

std::uint64_t Counters::dropped() const {
    return (*this)[Counter::DroppedQueue] + (*this)[Counter::DroppedMemory] +
           (*this)[Counter::DroppedEnded] + (*this)[Counter::DroppedShutdown];
}

void Counters::save(StateWriter& state) const {
    state.number(values_.size());
    for (std::size_t i = 0; i < values_.size(); ++i) {
        state.text(kTable[i].name);
        state.number(values_[i]);
    }
}

// By name: another version may have others.
void Counters::restore(StateReader& state) {
    for (std::uint64_t left = state.number(); left > 0; --left) {
        const std::string_view name = state.text();
        const std::uint64_t value = state.number();
        for (std::size_t i = 0; i < values_.size(); ++i) {
            if (kTable[i].name == name) values_[i] = value;
        }
    }
}

void printCounterTable(std::ostream& out) {
    for (const auto& row : kTable) {
        out << std::left << std::setw(24) << row.name << std::setw(13) << row.unit << row.meaning
            << '\n';
    }
}

}  // namespace kvx::rvd
