#include "rvd/Counters.h"

#include <iomanip>
#include <ostream>

namespace kvx::rvd {
namespace {

constexpr std::array<CounterInfo, static_cast<std::size_t>(Counter::Count)> kTable = {{
    {"connections.accepted", "connections", "TCP connections taken since the start"},
    {"connections.open", "connections", "TCP connections open now"},
    {"connections.failed", "connections", "closed because the peer broke the protocol"},
    {"connections.timed_out", "connections", "closed because the peer said nothing in time"},
    {"connections.refused", "connections",
     "turned away: no descriptors, and all others are in use"},
    {"sessions.open", "sessions", "connections that have announced a service and a network"},
    {"listens.open", "listens", "listens in force, each counted as often as it was made"},
    {"messages.received", "messages", "data messages taken from peers"},
    {"bytes.received", "bytes", "bytes of those messages"},
    {"messages.unreadable", "messages", "dropped on arrival: no type, or no sound subject"},
    {"messages.reserved", "messages", "dropped on arrival: a system advisory sent by a client"},
    {"messages.unmatched", "messages", "data messages that no session listened to"},
    {"messages.matched", "messages", "copies due: one for each session that listened"},
    {"messages.delivered", "messages", "copies written to a session's connection in full"},
    {"bytes.delivered", "bytes", "bytes of those copies"},
    {"dropped.slow_reader", "messages", "oldest copies dropped: the session's queue was full"},
    {"dropped.memory", "messages", "oldest copies dropped: all queues together were full"},
    {"dropped.too_large", "messages", "copies dropped: larger than a session's whole queue"},
    {"dropped.session_ended", "messages", "copies still waiting when their session ended"},
    {"loss.notices", "messages", "_RV.WARN.SYSTEM.DATALOSS messages queued for sessions"},
    {"keepalives.sent", "messages", "keepalives sent to silent peers"},
}};

}  // namespace

std::span<const CounterInfo> counterTable() {
    return kTable;
}

std::uint64_t Counters::dropped() const {
    return (*this)[Counter::DroppedSlowReader] + (*this)[Counter::DroppedMemory] +
           (*this)[Counter::DroppedTooLarge] + (*this)[Counter::DroppedSessionEnded];
}

void printCounterTable(std::ostream& out) {
    for (const auto& row : kTable) {
        out << std::left << std::setw(24) << row.name << std::setw(13) << row.unit << row.meaning
            << '\n';
    }
}

}  // namespace kvx::rvd
