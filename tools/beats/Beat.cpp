#include "tools/beats/Beat.h"

#include <memory>

#include "foundation/foundation.h"
#include "mom/transport/TransportPacket.h"

namespace kvx::beats {

namespace {

constexpr std::size_t kLongestText = 255;      // bytes
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

}  // namespace kvx::beats
