// Packing records into payloads and payloads into packets.
//
// Version 0 makes one plain payload of each record. Version 1 makes one plain payload of up to 10
// records, and compresses more than 10 in blocks: a block ends at its 100th record, or before it
// would exceed what a receiver inflates (256 MiB). Packets are numbered from 1 in the order of the
// payloads, and each carries the count of the batch; a packet that cannot be made is reported and
// missing from the sequence.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

#include "foundation/ErrorCodes.h"
#include "foundation/foundation.h"
#include "mom/transport/CVekTransport.h"
#include "mom/transport/TransportPacket.h"
#include "mom/transport/TransportPayload.h"
#include "mom/transport/ZlibBlock.h"
#include "rv/message/WireReader.h"

using kvx::packet::Bytes;
using kvx::transport::bytesOf;
using kvx::transport::payloadOf;
using kvx::transport::reportTransport;

namespace {

constexpr unsigned kMostUncompressedRecords = 10;  // in one plain packet

// A packet is one atom, whose length is an int.
constexpr std::size_t kLargestPacketPayload =
    std::numeric_limits<int>::max() - kvx::packet::kHeaderSize - kvx::packet::kLengthSize;

std::size_t sizeInPayload(const CVekAtom& record) {
    return kvx::packet::kLengthSize + bytesOf(record).size();
}

std::unique_ptr<SVekTransPayload> newPlainPayload(std::size_t size) {
    auto payload = std::make_unique<SVekTransPayload>();
    if (size <= kLargestPacketPayload) {
        payload->data.reset(
            static_cast<unsigned char*>(std::calloc(std::max<std::size_t>(size, 1), 1)));
    }
    if (payload->data == nullptr) {
        reportTransport(kvx::kNoMemory, "CVekTransport::RTCreatePackets");
        return nullptr;
    }
    payload->length = static_cast<std::int32_t>(size);
    payload->uncompressedLength = payload->length;
    return payload;
}

void appendPayload(CVekDoubleList& payloads, std::unique_ptr<SVekTransPayload> payload) {
    if (payload == nullptr) return;
    payloads.RDLAddToListEnd(new CVekPointer(payload.release()));
}

// One plain payload of the records from `first` up to and without `end`, which are deleted when
// `consume`; null without memory for it.
std::unique_ptr<SVekTransPayload> joinRecords(CVekAtomVector& records, unsigned first, unsigned end,
                                              bool consume) {
    std::size_t size = 0;
    for (unsigned i = first; i < end; ++i) size += sizeInPayload(*records.RAVGetValue(i));
    auto payload = newPlainPayload(size);
    unsigned char* out = payload != nullptr ? payload->data.get() : nullptr;
    for (unsigned i = first; i < end; ++i) {
        const CVekAtom* atom = records.RAVGetValue(i);
        if (out != nullptr) out = kvx::packet::writeRecord(out, bytesOf(*atom));
        if (consume) delete atom;
    }
    return payload;
}

// The end of the block that begins with record `first`.
unsigned blockEnd(CVekAtomVector& records, unsigned first) {
    std::size_t size = 0;
    unsigned end = first;
    for (; end < records.RAVSize() && end - first < VEK_TRANS_V1_RECORDS; ++end) {
        size += sizeInPayload(*records.RAVGetValue(end));
        if (end > first && size > kvx::packet::kLargestPayload) break;
    }
    return end;
}

}  // namespace

int CVekTransport::RTAddRecord(const CVekBaseRecord* record) {
    if (record == nullptr) return kvx::kMissingArgument;
    unsigned char* bytes = nullptr;
    int length = 0;
    record->ROMEncode(&bytes, &length);
    if (bytes == nullptr) return kvx::kOk;
    return m_records.RAVAddToEnd(new CVekAtom(bytes, length));
}

int CVekTransport::RTTakeROMP(CVekAtom** romp) {
    if (romp == nullptr || *romp == nullptr) return kvx::kMissingArgument;
    if ((*romp)->RAType() != VEK_TYPE_BYTES) return kvx::kWrongAtomType;
    const int result = m_records.RAVAddToEnd(*romp);
    if (result == kvx::kOk) *romp = nullptr;
    return result;
}

void CVekTransport::RTPreparePayloads(EVekTransHdr version) {
    if (version != VEK_TRANS_V1 || m_records.RAVSize() != VEK_TRANS_V1_RECORDS) return;
    takePayloads(RTCreateCompressedPayloads(true));
}

void CVekTransport::RTTakePayloads(CVekTransport& other, EVekTransHdr version) {
    if (this == &other) return;
    other.RTCreatePayloads(version, true);
    movePayloads(other.m_payloads);
}

void CVekTransport::RTCreatePayloads(EVekTransHdr version, bool consume) {
    const unsigned records = m_records.RAVSize();
    if (records == 0) return;
    if (version != VEK_TRANS_V1) {
        takePayloads(RTCreateVersion0Payloads(consume));
    } else if (records <= kMostUncompressedRecords) {
        takePayloads(RTCreateBufferedPayloads(consume));
    } else {
        takePayloads(RTCreateCompressedPayloads(consume));
    }
}

CVekDoubleList* CVekTransport::RTCreateVersion0Payloads(bool consume) {
    auto payloads = std::make_unique<CVekDoubleList>();
    for (unsigned i = 0; i < m_records.RAVSize(); ++i) {
        const CVekAtom* atom = m_records.RAVGetValue(i);
        const Bytes record = bytesOf(*atom);
        auto payload = newPlainPayload(kvx::packet::kLengthSize + record.size());
        if (payload != nullptr) kvx::packet::writeRecord(payload->data.get(), record);
        appendPayload(*payloads, std::move(payload));
        if (consume) delete atom;
    }
    if (consume) m_records.RAVReset();
    return payloads.release();
}

CVekDoubleList* CVekTransport::RTCreateBufferedPayloads(bool consume) {
    auto payloads = std::make_unique<CVekDoubleList>();
    appendPayload(*payloads, joinRecords(m_records, 0, m_records.RAVSize(), consume));
    if (consume) m_records.RAVReset();
    return payloads.release();
}

CVekDoubleList* CVekTransport::RTCreateCompressedPayloads(bool consume) {
    auto payloads = std::make_unique<CVekDoubleList>();
    const unsigned records = m_records.RAVSize();
    for (unsigned first = 0, end = 0; first < records; first = end) {
        end = blockEnd(m_records, first);
        const auto plain = joinRecords(m_records, first, end, consume);
        // Without memory it has no data: its packet will be missing from the sequence.
        auto packed = std::make_unique<SVekTransPayload>();
        if (plain != nullptr) *packed = kvx::transport::deflated(*plain);
        appendPayload(*payloads, std::move(packed));
    }
    if (consume) m_records.RAVReset();
    return payloads.release();
}

// Moves the elements of `payloads` to the payload list, and deletes `payloads`.
void CVekTransport::takePayloads(CVekDoubleList* payloads) {
    const std::unique_ptr<CVekDoubleList> owner(payloads);
    movePayloads(*owner);
}

void CVekTransport::movePayloads(CVekDoubleList& from) {
    while (CVekListable* element = from.RDLHead()) {
        from.RDLTakeListable(element);
        m_payloads.RDLAddToListEnd(element);
    }
}

unsigned char* CVekTransport::RTGenerateHeader(unsigned char* buffer, long long sequence,
                                               long long count, EVekTransHdr version,
                                               unsigned short kind) {
    kvx::packet::Header header;
    header.sequence = sequence;
    header.count = count;
    header.version = static_cast<std::uint16_t>(version);
    header.kind = kind;
    header.status = static_cast<std::uint16_t>(m_storeStatus);
    return kvx::packet::writeHeader(buffer, header);
}

int CVekTransport::RTCreatePackets(EVekTransHdr version, bool consume) {
    RTCreatePayloads(version, consume);
    const long long count = m_payloads.RDLLength();
    long long sequence = 0;
    for (const CVekListable* element = m_payloads.RDLHead(); element != nullptr;
         element = m_payloads.RDLGetNext(element)) {
        addPacket(*payloadOf(element), ++sequence, count, version);
    }
    dropPayloads();
    return kvx::kOk;
}

void CVekTransport::addPacket(const SVekTransPayload& payload, long long sequence, long long count,
                              EVekTransHdr version) {
    const bool compressed = payload.kind == kvx::packet::kCompressed;
    const std::size_t size = kvx::packet::kHeaderSize +
                             (compressed ? kvx::packet::kLengthSize : 0) +
                             static_cast<std::size_t>(payload.length);
    unsigned char* buffer = nullptr;
    if (payload.data != nullptr && size <= std::numeric_limits<int>::max()) {
        buffer = static_cast<unsigned char*>(std::malloc(size));
    }
    if (buffer == nullptr) {
        reportTransport(kvx::kNoMemory, "CVekTransport::RTCreatePackets");
        return;
    }
    unsigned char* out = RTGenerateHeader(buffer, sequence, count, version, payload.kind);
    if (compressed) {
        kvx::storeBig32(out, static_cast<std::uint32_t>(payload.uncompressedLength));
        out += kvx::packet::kLengthSize;
    }
    std::memcpy(out, payload.data.get(), static_cast<std::size_t>(payload.length));
    adoptPacket(buffer, size);
}

// Takes ownership of the packet at `buffer`, which is from `malloc`.
void CVekTransport::adoptPacket(unsigned char* buffer, std::size_t size) {
    auto atom = std::make_unique<CVekAtom>(buffer, static_cast<int>(size));
    if (RTAddMessage(atom.get()) == kvx::kOk) static_cast<void>(atom.release());
}

int CVekTransport::RTNilResults() {
    constexpr std::size_t kSize = kvx::packet::kHeaderSize + kvx::packet::kLengthSize;
    auto* buffer = static_cast<unsigned char*>(std::malloc(kSize));
    if (buffer == nullptr) {
        reportTransport(kvx::kNoMemory, "CVekTransport::RTNilResults");
        return kvx::kOk;
    }
    unsigned char* out = RTGenerateHeader(buffer, 1, 1, VEK_TRANS_V1, kvx::packet::kPlain);
    kvx::packet::writeRecord(out, {});
    adoptPacket(buffer, kSize);
    return kvx::kOk;
}
