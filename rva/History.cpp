#include "rva/History.h"

#include <algorithm>

#include "tools/bus/DaemonAnswer.h"

namespace kvx::rva {

namespace {

using bus::numberIn;

constexpr unsigned kSpanSeconds = 3600;

std::optional<double> gauge(const Json& object, const char* name) {
    if (!object.contains(name)) return std::nullopt;
    return bus::realIn(object, name);
}

Json valueOrNull(const std::optional<double>& value) {
    return value ? Json(*value) : Json(nullptr);
}

}  // namespace

const History::Entry& History::add(const DaemonFigures& daemon, std::uint64_t services,
                                   std::uint64_t silent, std::int64_t time,
                                   platform::Milliseconds now) {
    const Json& status = daemon.status();
    const Json& counters = bus::objectIn(status, "counters");
    Entry entry{time};
    std::optional<Totals> totals;
    if (!counters.empty()) {
        const auto dropped =
            numberIn(counters, "dropped_queue") + numberIn(counters, "dropped_memory") +
            numberIn(counters, "dropped_ended") + numberIn(counters, "dropped_shutdown");
        totals = {numberIn(counters, "messages_received"), numberIn(counters, "bytes_received"),
                  numberIn(counters, "messages_delivered"), numberIn(counters, "bytes_delivered"),
                  dropped};
    }
    const auto started = numberIn(status, "started_ms");
    const double seconds = static_cast<double>(now - since_) / 1000;
    for (std::size_t i = 0; i < kRates && totals && before_ && seconds > 0; ++i) {
        // A daemon that was restarted counts from 0.
        if (started != started_ || (*totals)[i] < (*before_)[i]) continue;
        entry.values[i] = static_cast<double>((*totals)[i] - (*before_)[i]) / seconds;
    }
    entry.values[5] = gauge(counters, "messages_waiting");
    entry.values[6] = gauge(counters, "sessions_open");
    entry.values[7] = gauge(counters, "listens_open");
    entry.values[8] = static_cast<double>(services);
    entry.values[9] = static_cast<double>(silent);
    entry.values[10] = gauge(bus::objectIn(status, "memory"), "used");
    before_ = totals;
    started_ = started;
    since_ = now;
    entries_.push_back(entry);
    if (entries_.size() > kSpanSeconds / std::max(interval_, 1U)) entries_.pop_front();
    return entries_.empty() ? entries_.emplace_back(entry) : entries_.back();
}

Json History::columns() const {
    Json time = Json::array();
    for (const Entry& entry : entries_) time.push_back(entry.time);
    Json series = Json::object();
    for (std::size_t i = 0; i < kSeries.size(); ++i) {
        Json& column = series[kSeries[i]] = Json::array();
        for (const Entry& entry : entries_) column.push_back(valueOrNull(entry.values[i]));
    }
    return {{"interval_s", interval_}, {"time", std::move(time)}, {"series", std::move(series)}};
}

Json History::entryJson(const Entry& entry) {
    Json values = Json::object();
    for (std::size_t i = 0; i < kSeries.size(); ++i) {
        values[kSeries[i]] = valueOrNull(entry.values[i]);
    }
    return {{"time", entry.time}, {"values", std::move(values)}};
}

}  // namespace kvx::rva
