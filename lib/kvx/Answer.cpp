// A packet is decoded here and not by a `CVekTransport`, which reports a defect but returns what it
// could read: a querier could not tell a whole answer from one with rows missing.

#include "kvx/Answer.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <vector>

#include "mom/transport/CVekInflater.h"
#include "mom/transport/TransportPacket.h"
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

// The last field is the packet; all of them are opaque.
std::unique_ptr<CVekAtom> packetOf(const RvDatum& data) {
    if (data.type() != RVMSG_MSG) return nullptr;
    RvMsg message(static_cast<const RvMsg&>(data));
    int status = kOk;
    std::unique_ptr<CVekAtom> atom(CVekTransport::RTDecodeMessage(&message, status));
    return status == kOk ? std::move(atom) : nullptr;
}

std::optional<Packet> readPacket(const CVekAtom* atom) {
    if (atom == nullptr) return std::nullopt;
    unsigned char* data = nullptr;
    int length = 0;
    atom->RAUChar(&data, &length);
    if (data == nullptr || length < 0) return std::nullopt;
    const Bytes bytes(data, static_cast<std::size_t>(length));
    const auto header = packet::readHeader(bytes);
    if (!header) return std::nullopt;
    const std::size_t start = std::min(packet::kHeaderSize + header->extension, bytes.size());
    return Packet{*header, bytes.subspan(start)};
}

// Nothing when the stream is not what its length says, or longer than `most`. Grows with what is
// really there.
std::optional<std::vector<unsigned char>> inflated(Bytes payload, std::size_t most) {
    if (payload.size() < packet::kLengthSize) return std::nullopt;
    std::size_t size = 0;
    for (const unsigned char byte : payload.first(packet::kLengthSize)) size = size << 8U | byte;
    if (size > std::min<std::size_t>(packet::kLargestPayload, most)) return std::nullopt;
    const Bytes stream = payload.subspan(packet::kLengthSize);
    CVekInflater inflater(stream.data(), static_cast<int>(stream.size()));
    std::vector<unsigned char> out;
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

enum class Reading { Whole, Defective, TooLarge };

Reading readRecords(Bytes payload, Budget& budget, Rows& rows) {
    if (!budget.take(payload.size())) return Reading::TooLarge;
    packet::RecordReader records(payload);
    bool isWhole = true;
    while (const auto bytes = records.next()) {
        if (!budget.take(Answer::kRecordCost)) return Reading::TooLarge;
        auto record = Record::decode(std::as_bytes(*bytes));
        if (record && !budget.take(Answer::kRecordCost * record->size())) return Reading::TooLarge;
        if (record) rows.push_back(std::move(*record));
        isWhole = isWhole && record;
    }
    return isWhole && !records.isDefective() ? Reading::Whole : Reading::Defective;
}

Reading readRows(const Packet& packet, Budget& budget, Rows& rows) {
    const packet::Header& header = packet.header;
    if (header.version != VEK_TRANS_V1 || header.kind != packet::kCompressed) {
        return readRecords(packet.payload, budget, rows);
    }
    const auto payload = inflated(packet.payload, budget.left);
    return payload ? readRecords(*payload, budget, rows) : Reading::Defective;
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

Answer::State Answer::take(const RvDatum& data) {
    const auto atom = packetOf(data);
    const auto packet = readPacket(atom.get());
    if (!packet) return State::Foreign;
    const packet::Header& header = packet->header;
    const PacketNumbers::State numbered = numbers_.take(header);
    if (numbered == PacketNumbers::State::Mixed) return State::Mixed;
    if (header.count > kMostPackets) return State::TooLarge;
    Budget budget{kMostBytes - bytes_};
    const Reading reading = readRows(*packet, budget, packets_[header.sequence]);
    bytes_ = kMostBytes - budget.left;
    if (reading == Reading::TooLarge) return State::TooLarge;
    if (reading == Reading::Defective) ++defective_;
    if (isSuccess(status_)) status_ = static_cast<EVekStoreErrorStatus>(header.status);
    return numbered == PacketNumbers::State::Complete ? State::Complete : State::Waiting;
}

Rows Answer::takeRows() {
    Rows rows;
    for (auto& [number, some] : packets_) std::ranges::move(some, std::back_inserter(rows));
    packets_.clear();
    return rows;
}

QueryResult Answer::result(const std::string& tried) {
    Rows rows = takeRows();
    if (!isSuccess(status_)) {
        const auto reason =
            rows.size() == 1 ? rows.front().get<std::string>("error") : std::nullopt;
        return tl::unexpected(QueryError{
            {Errc::Refused, reason.value_or(statusText(status_)), tried}, std::move(rows)});
    }
    if (defective_ == 0) return rows;
    return tl::unexpected(QueryError{
        {Errc::Partial, std::to_string(defective_) + " packets could not be read", tried},
        std::move(rows)});
}

QueryResult Answer::failure(Errc code, std::string text, const std::string& tried) {
    return tl::unexpected(QueryError{{code, std::move(text), tried}, takeRows()});
}

Rows recordsOf(const RvDatum& data) {
    const auto atom = packetOf(data);
    const auto packet = readPacket(atom.get());
    Rows rows;
    Budget budget;
    if (packet) readRows(*packet, budget, rows);
    return rows;
}

}  // namespace kvx::detail
