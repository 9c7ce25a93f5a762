// Entries are in the order of their last beats: a beat moves its entry to the end, so the first one
// is always the one to drop, for its silence or for lack of room.

#include "tools/beats/BeatTable.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iterator>
#include <memory>
#include <set>
#include <utility>

#include "mom/mom.h"
#include "mom/transport/TransportPacket.h"

namespace kvx::beats {

namespace {

constexpr std::size_t kLargestBeat = 4096;     // bytes of a packet
constexpr std::uint16_t kRecordPerPacket = 0;  // the header version

using Bytes = std::span<const unsigned char>;

// The record of a packet that holds exactly one; nothing for any other packet.
std::unique_ptr<CVekBaseRecord> onlyRecord(Bytes packet) {
    const auto header = packet::readHeader(packet);
    if (!header || packet.size() > kLargestBeat || header->version != kRecordPerPacket ||
        header->kind != packet::kPlain || header->count != 1) {
        return nullptr;
    }
    const std::size_t begin = packet::kHeaderSize + header->extension;
    if (begin > packet.size()) return nullptr;
    packet::RecordReader records(packet.subspan(begin));
    const auto record = records.next();
    if (!record || records.next() || records.isDefective()) return nullptr;
    return std::unique_ptr<CVekBaseRecord>(
        CVekBaseRecord::ROMDecode(record->data(), static_cast<int>(record->size())));
}

bool readText(const CVekBaseRecord& record, const char* name, std::string& text) {
    const CVekAtom* const value = record.RRGetValue(name);
    if (value == nullptr || value->RAType() != VEK_TYPE_STRING) return false;
    text = value->RAString();
    return text.size() <= kLongestText;
}

bool readNumber(const CVekBaseRecord& record, const char* name, std::int64_t& number) {
    const CVekAtom* const value = record.RRGetValue(name);
    if (value == nullptr) return false;
    if (value->RAType() != VEK_TYPE_INT && value->RAType() != VEK_TYPE_INT64) return false;
    number = value->RAInt64();
    return true;
}

double seconds(Milliseconds span) {
    return static_cast<double>(span) / 1000.0;
}

}  // namespace

std::optional<Beat> readBeat(Bytes packet) {
    const auto record = onlyRecord(packet);
    if (!record) return std::nullopt;
    Beat beat;
    std::int64_t type = -1;
    const bool whole = readText(*record, "service", beat.service) &&
                       readText(*record, "domain", beat.domain) &&
                       readText(*record, "host", beat.host) &&
                       readNumber(*record, "pid", beat.pid) && readNumber(*record, "type", type);
    if (!whole || beat.pid <= 0 || type < 0 || type > 1) return std::nullopt;
    beat.hasBeenPrimary = type == 1;
    return beat;
}

std::uint64_t Service::overdue(Milliseconds now) const {
    const Milliseconds silence = now - awaitedSince - kTolerance;
    return silence <= 0 ? 0 : static_cast<std::uint64_t>(silence / kHeartbeatInterval);
}

bool BeatTable::hear(std::span<const unsigned char> packet, Milliseconds now) {
    auto beat = readBeat(packet);
    if (!beat) {
        ++counters_.ignored;
        return false;
    }
    ++counters_.heard;
    forgetSilent(now);
    const auto known = index_.find(keyOf(*beat));
    if (known == index_.end()) {
        insert(*beat, now);
        return true;
    }
    Service& service = *known->second;
    service.missedBefore += service.overdue(now);
    service.beat = std::move(*beat);
    service.lastHeard = service.awaitedSince = now;
    ++service.beats;
    entries_.splice(entries_.end(), entries_, known->second);
    return true;
}

void BeatTable::insert(const Beat& beat, Milliseconds now) {
    if (entries_.size() == kMostServices) dropOldest();
    entries_.push_back({beat, now, now, 1, 0, now});
    index_.emplace(keyOf(beat), std::prev(entries_.end()));
}

void BeatTable::resume(Milliseconds now) {
    for (Service& service : entries_) service.awaitedSince = now;
    groups_.resume(now);
}

void BeatTable::forgetSilent(Milliseconds now) {
    groups_.forgetSilent(now);
    while (!entries_.empty() && entries_.front().age(now) >= kForgetAfter) dropOldest();
}

void BeatTable::dropOldest() {
    index_.erase(keyOf(entries_.front().beat));
    entries_.pop_front();
    ++counters_.forgotten;
}

std::size_t BeatTable::silent(Milliseconds now) const {
    const auto heard = std::find_if(entries_.begin(), entries_.end(),
                                    [now](const Service& one) { return one.overdue(now) == 0; });
    return static_cast<std::size_t>(std::distance(entries_.begin(), heard));
}

std::vector<Service> BeatTable::services(Milliseconds now) const {
    std::map<std::pair<std::int64_t, std::string_view>, std::set<std::string_view>> hosts;
    for (const auto& [key, entry] : index_) hosts[{key.pid, key.domain}].insert(key.host);
    std::vector<Service> all;
    all.reserve(index_.size());
    for (const auto& [key, entry] : index_) {
        Service& service = all.emplace_back(*entry);
        const bool isAlone = hosts.find({key.pid, key.domain})->second.size() == 1;
        const Member* const member = isAlone ? groups_.find(key.pid, key.domain, now) : nullptr;
        if (member != nullptr) service.member = *member;
    }
    return all;
}

const char* roleOf(const Service& service) {
    return service.isPrimary() ? "primary" : "backup";
}

namespace {

void addMember(nlohmann::ordered_json& json, const Service& service) {
    const auto& member = service.member;
    const auto name = member ? groupNameOf(member->group, service.beat.domain) : std::nullopt;
    json["group"] = nullptr;
    json["tier"] = nullptr;
    json["role_since_ms"] = nullptr;
    json["role_seen"] = name && member->isRoleSeen;
    if (!name) return;
    json["group"] = name->base;
    json["tier"] = name->tier;
    json["role_since_ms"] = member->roleSinceMs;
}

}  // namespace

std::string serviceAsJson(const Service& service, Milliseconds now) {
    nlohmann::ordered_json json;
    json["service"] = service.beat.service;
    json["domain"] = service.beat.domain;
    json["host"] = service.beat.host;
    json["pid"] = service.beat.pid;
    json["role"] = roleOf(service);
    json["age_seconds"] = seconds(service.age(now));
    json["known_seconds"] = seconds(now - service.firstHeard);
    json["beats"] = service.beats;
    json["missed"] = service.missed(now);
    json["overdue"] = service.overdue(now);
    json["silent"] = service.isSilent(now);
    addMember(json, service);
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace kvx::beats
