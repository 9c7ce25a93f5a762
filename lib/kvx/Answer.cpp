// A packet is decoded here and not by a `CVekTransport`, which reports a defect but returns what it
// could read: a querier could not tell a whole answer from one with rows missing.

#include "kvx/Answer.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <vector>

#include "mom/transport/CVekInflater.h"
#include "mom/transport/TransportPacket.h"
#include "mom/transport/ZlibBlock.h"
#include "platform/Memory.h"

namespace kvx::detail {

namespace {

using packet::Bytes;

constexpr std::size_t kInflateStep = std::size_t{256} << 10U;

struct Packet {
    packet::Header header;
    Bytes payload;
};

// What is left of the bound, charged while records are read.
struct Budget {
    std::size_t left = Answer::kMostBytes;

    bool take(std::size_t bytes) {
        if (bytes > left) return false;
        left -= bytes;
        return true;
    }
};

// The last field is the packet; all of them are opaque. It refers to the message.
std::optional<Bytes> packetOf(const RvDatum& data) {
    if (data.type() != RVMSG_MSG) return std::nullopt;
    struct {
        std::optional<Bytes> packet;
        bool isOther = false;
    } fields;
    const auto take = [](const char*, rvmsg_Type type, rvmsg_Size size, rvmsg_Data bytes,
                         void* closure) {
        auto& read = *static_cast<decltype(fields)*>(closure);
        read.packet = Bytes(static_cast<const unsigned char*>(bytes), size);
        read.isOther = type != RVMSG_OPAQUE;
        return read.isOther ? 1 : 0;
    };
    rvmsg_Iterate(data.data(), nullptr, take, &fields);
    return fields.isOther ? std::nullopt : fields.packet;
}

std::optional<Packet> readPacket(const RvDatum& data) {
    const auto bytes = packetOf(data);
    const auto header = bytes ? packet::readHeader(*bytes) : std::nullopt;
    if (!header) return std::nullopt;
    const std::size_t start = std::min(packet::kHeaderSize + header->extension, bytes->size());
    return Packet{*header, bytes->subspan(start)};
}

// The first word of a compressed payload.
std::size_t lengthOf(Bytes payload) {
    std::size_t length = 0;
    for (const unsigned char byte : payload.first(packet::kLengthSize)) {
        length = length << 8U | byte;
    }
    return length;
}

// Nothing when the stream is not what its length says, or longer than `most`. Grows with what is
// really there.
std::optional<std::vector<unsigned char>> inflated(Bytes payload, std::size_t most) {
    if (payload.size() < packet::kLengthSize) return std::nullopt;
    const std::size_t size = lengthOf(payload);
    if (size > std::min<std::size_t>(packet::kLargestPayload, most)) return std::nullopt;
    const Bytes stream = payload.subspan(packet::kLengthSize);
    std::vector<unsigned char> out(size <= kInflateStep ? size : 0);
    if (!out.empty() && transport::inflateWhole(stream, out)) return out;
    out.clear();
    CVekInflater inflater(stream.data(), static_cast<int>(stream.size()));
    while (out.size() < size && inflater.RIIsDone() != TRUE) {
        const std::size_t before = out.size();
        out.resize(std::min(size, before + kInflateStep));
        inflater.RIInflateChunk(out.data() + before, static_cast<int>(out.size() - before));
        out.resize(static_cast<std::size_t>(inflater.RIInflatedLength()));
        if (out.size() <= before) return std::nullopt;
    }
    if (out.size() != size) return std::nullopt;
    return out;
}

// What a packet has: its rows, and how many parts of it cannot be read.
struct Reading {
    Rows rows;
    std::size_t unreadable = 0;
    bool isTooLarge = false;
};

Reading tooLarge() {
    Reading reading;
    reading.isTooLarge = true;
    return reading;
}

Reading readRecords(Bytes payload, Budget& budget) {
    if (!budget.take(payload.size())) return tooLarge();
    Reading reading;
    packet::RecordReader records(payload);
    while (const auto bytes = records.next()) {
        if (!budget.take(Answer::kRecordCost)) return tooLarge();
        auto record = Record::decode(std::as_bytes(*bytes));
        if (record && !budget.take(Answer::kRecordCost * record->size())) return tooLarge();
        record ? reading.rows.push_back(std::move(*record)) : void(++reading.unreadable);
    }
    if (records.isDefective()) ++reading.unreadable;
    return reading;
}

Reading readRows(const Packet& packet, Budget& budget) {
    const packet::Header& header = packet.header;
    if (header.version != VEK_TRANS_V1 || header.kind != packet::kCompressed) {
        return readRecords(packet.payload, budget);
    }
    const auto payload = inflated(packet.payload, budget.left);
    return payload ? readRecords(*payload, budget) : Reading{{}, 1, false};
}

std::string statusText(EVekStoreErrorStatus status) {
    const Text text(CVekTransport::RTPrintError(status, ""));
    std::string words = text ? text.get() : "";
    // The text stands between "( " and " )", with a blank of its own in front.
    return words.size() > 5 ? words.substr(3, words.size() - 5)
                            : "store status " + std::to_string(status);
}

bool isSuccess(EVekStoreErrorStatus status) {
    return status == STORE_COMPLETE || status == STORE_ZERO_MATCHES;
}

}  // namespace

void append(Packets& all, Packets& more) {
    if (all.rows.empty()) {
        all.rows = std::move(more.rows);
    } else {
        std::ranges::move(more.rows, std::back_inserter(all.rows));
    }
    all.count += more.count;
    all.cost += more.cost;
    all.stamped.insert(all.stamped.end(), more.stamped.begin(), more.stamped.end());
    if (more.source) all.source = std::move(more.source);
}

Answer::State Answer::take(const RvDatum& data, bool isConversation) {
    const auto packet = readPacket(data);
    if (!packet) return State::Foreign;
    const packet::Header& header = packet->header;
    const PacketNumbers::State numbered = numbers_.take(header, isConversation);
    if (numbered == PacketNumbers::State::Mixed) return State::Mixed;
    if (std::max(header.count, header.sequence) > kMostPackets) return State::TooLarge;
    Budget budget{kMostBytes - bytes_};
    Reading reading = readRows(*packet, budget);
    auto source = readSource(data);
    const std::size_t texts = source ? source->key.size() + 1 : 0;
    if (reading.isTooLarge || !budget.take(kRecordCost * texts)) return State::TooLarge;
    count(header, packet->payload);
    totals_.unreadable += reading.unreadable;
    const std::size_t cost = kMostBytes - bytes_ - budget.left;
    bytes_ += cost;
    const auto status = static_cast<EVekStoreErrorStatus>(header.status);
    if (isSuccess(status_)) status_ = status;
    Packets& taken = packets_[header.sequence];
    taken.source = std::move(source);
    taken.count = 1;
    taken.cost = cost;
    Rows& rows = isSuccess(status) ? taken.rows : refusal_;
    std::ranges::move(reading.rows, std::back_inserter(rows));
    if (const auto stamp = readStamp(data)) taken.stamped = {{*stamp, taken.rows.size()}};
    totals_.isComplete = numbered == PacketNumbers::State::Complete;
    return totals_.isComplete ? State::Complete : State::Waiting;
}

void Answer::count(const packet::Header& header, Bytes payload) {
    const bool isCompressed =
        header.kind == packet::kCompressed && payload.size() >= packet::kLengthSize;
    ++totals_.packets;
    totals_.sentBytes += payload.size();
    totals_.plainBytes += isCompressed ? lengthOf(payload) : payload.size();
}

Packets Answer::takeNext() {
    Packets some;
    for (auto packet = packets_.begin(); packet != packets_.end() && packet->first == next_;
         packet = packets_.erase(packet)) {
        append(some, packet->second);
        ++next_;
    }
    return some;
}

Packets Answer::takeRest() {
    Packets rest;
    for (auto& [number, packet] : packets_) append(rest, packet);
    packets_.clear();
    return rest;
}

std::optional<QueryError> Answer::failure(const std::string& tried) {
    if (!isSuccess(status_)) {
        const auto reason =
            refusal_.size() == 1 ? refusal_.front().get<std::string>("error") : std::nullopt;
        return QueryError{{Errc::Refused, reason.value_or(statusText(status_)), tried},
                          std::move(refusal_)};
    }
    if (totals_.unreadable == 0) return std::nullopt;
    return QueryError{
        {Errc::Partial, std::to_string(totals_.unreadable) + " records could not be read", tried},
        {}};
}

AnswerTotals Answer::totals() const {
    AnswerTotals totals = totals_;
    if (status_ != STORE_COMPLETE) totals.remark = statusText(status_);
    return totals;
}

std::optional<packet::Header> headerOf(const RvDatum& data) {
    const auto packet = readPacket(data);
    return packet ? std::optional(packet->header) : std::nullopt;
}

Rows recordsOf(const RvDatum& data) {
    const auto packet = readPacket(data);
    Budget budget;
    return packet ? readRows(*packet, budget).rows : Rows();
}

}  // namespace kvx::detail
