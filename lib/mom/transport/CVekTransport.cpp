#include "mom/transport/CVekTransport.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <limits>
#include <memory>

#include "foundation/ErrorCodes.h"
#include "foundation/foundation.h"
#include "mom/engine/CVekEngine.h"
#include "mom/net/VekTrace.h"
#include "mom/transport/CVekDeflater.h"
#include "mom/transport/CVekInflater.h"
#include "mom/transport/TransportPacket.h"
#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"
#include "rv/message/WireReader.h"
#include "rv/object/RvSender.h"

// Records pass through three forms. The record vector holds encoded records; the payload list holds
// their bytes as they will stand in a packet, compressed or not; the packet vector holds whole
// packets, ready to be sent or as they were received. `RTPreparePayloads` and `RTCreatePayloads`
// move records to the payload list, `RTCreatePackets` moves payloads to the packet vector, and only
// there does a batch learn how many packets it has.
//
// The expected packet count belongs to the packet vector: whoever replaces the vector sets it to 0,
// and the first whole packet added sets it again.

using kvx::packet::Bytes;

// A packet to be, without its header.
struct SVekTransPayload {
    struct Free {
        void operator()(unsigned char* bytes) const { std::free(bytes); }
    };

    std::unique_ptr<unsigned char, Free> data;
    std::int32_t length = 0;              // bytes of data
    std::int32_t uncompressedLength = 0;  // bytes; equal to length for a plain payload
    std::uint16_t kind = kvx::packet::kPlain;
};

namespace {

constexpr int kBadPacket = -220494;

constexpr unsigned kMostUncompressedRecords = 10;  // in one plain packet
constexpr unsigned kRecordsInBlock = 100;          // in one compressed packet
constexpr int kFirstDeflateBuffer = 1004;          // bytes
constexpr int kDefaultLevel = -1;
constexpr std::uint32_t kMostReserved = 4096;  // places reserved for an announced batch
constexpr unsigned long kMessageSize = 1024;   // bytes of a message before it grows

// A packet is one atom, whose length is an int.
constexpr std::size_t kLargestPacketPayload =
    std::numeric_limits<int>::max() - kvx::packet::kHeaderSize - kvx::packet::kLengthSize;

constexpr const char* kStatusTexts[] = {
    " Transaction complete )",
    " Permission denied )",
    " Database does not exist )",
    " Table does not exist )",
    " A specified column does not exist )",
    " Index does not exist )",
    " An assignment between incorrect types is not allowed )",
    " Attempt to insert and incomplete row )",
    " Query has zero matches )",
    " Table create request failed )",
    " Database create request failed )",
    " Index create request failed )",
    " Duplicate key error on insertion )",
    " Update request failed )",
};

// The contract gives the reports of this class no lines.
void reportTransport(int code, const char* text) {
    CVekError(code, "CVekTransport", 0, text);
}

Bytes bytesOf(const CVekAtom& atom) {
    unsigned char* bytes = nullptr;
    int length = 0;
    if (atom.RAUChar(&bytes, &length) != kvx::kOk || bytes == nullptr || length <= 0) return {};
    return {bytes, static_cast<std::size_t>(length)};
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

SVekTransPayload* payloadOf(const CVekListable* element) {
    return static_cast<SVekTransPayload*>(static_cast<const CVekPointer*>(element)->RPData());
}

void addRecord(CVekDeflater& deflater, Bytes record) {
    unsigned char length[kvx::packet::kLengthSize];
    kvx::storeBig32(length, static_cast<std::uint32_t>(record.size()));
    deflater.RDAddChunk(length, sizeof length);
    deflater.RDAddChunk(record.data(), static_cast<int>(record.size()));
}

std::unique_ptr<SVekTransPayload> finishBlock(CVekDeflater& deflater) {
    deflater.RDFinishCompression();
    auto payload = std::make_unique<SVekTransPayload>();
    payload->length = deflater.RDCompressedLength();
    payload->uncompressedLength = deflater.RDUnCompressedLength();
    payload->kind = kvx::packet::kCompressed;
    payload->data.reset(static_cast<unsigned char*>(deflater.RDTakeCompressedData()));
    return payload;
}

int doubled(int length) {
    return length > std::numeric_limits<int>::max() / 2 ? length : 2 * length;
}

// The bytes of an opaque field in an atom of their own; an atom without bytes when there is no
// memory.
std::unique_ptr<CVekAtom> copyOfField(const RvDatum& field) {
    const std::size_t size = field.data() != nullptr ? field.size() : 0;
    unsigned char* copy = nullptr;
    if (size <= std::numeric_limits<int>::max()) {
        copy = static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(size, 1)));
    }
    if (copy == nullptr) {
        reportTransport(kvx::kNoMemory, "CVekTransport::RTDecodeMessage");
        return std::make_unique<CVekAtom>(copy, 0);
    }
    if (size > 0) std::memcpy(copy, field.data(), size);
    return std::make_unique<CVekAtom>(copy, static_cast<int>(size));
}

}  // namespace

CVekTransport::CVekTransport(CVekEngine* engine)
    : m_engine(engine), m_packets(new CVekAtomVector(0)), m_records(0) {}

CVekTransport::~CVekTransport() {
    delete m_packets;
    std::free(m_subject);
    dropPayloads();
}

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
    if (version != VEK_TRANS_V1 || m_records.RAVSize() != kRecordsInBlock) return;
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
    std::size_t size = 0;
    for (unsigned i = 0; i < m_records.RAVSize(); ++i) {
        size += kvx::packet::kLengthSize + bytesOf(*m_records.RAVGetValue(i)).size();
    }
    auto payload = newPlainPayload(size);
    unsigned char* out = payload != nullptr ? payload->data.get() : nullptr;
    for (unsigned i = 0; i < m_records.RAVSize(); ++i) {
        const CVekAtom* atom = m_records.RAVGetValue(i);
        if (out != nullptr) out = kvx::packet::writeRecord(out, bytesOf(*atom));
        if (consume) delete atom;
    }
    if (consume) m_records.RAVReset();
    appendPayload(*payloads, std::move(payload));
    return payloads.release();
}

CVekDoubleList* CVekTransport::RTCreateCompressedPayloads(bool consume) {
    auto payloads = std::make_unique<CVekDoubleList>();
    auto deflater = std::make_unique<CVekDeflater>(kFirstDeflateBuffer, kDefaultLevel);
    const unsigned records = m_records.RAVSize();
    unsigned inBlock = 0;
    // No receiver takes a larger block, so one that would get there ends before its 100th record.
    const auto isLastOfBlock = [&](unsigned i) {
        if (inBlock == kRecordsInBlock || i + 1 == records) return true;
        const auto size = static_cast<std::size_t>(deflater->RDUnCompressedLength()) +
                          kvx::packet::kLengthSize + bytesOf(*m_records.RAVGetValue(i + 1)).size();
        return size > kvx::packet::kLargestPayload;
    };
    for (unsigned i = 0; i < records; ++i) {
        const CVekAtom* atom = m_records.RAVGetValue(i);
        addRecord(*deflater, bytesOf(*atom));
        if (consume) delete atom;
        ++inBlock;
        if (!isLastOfBlock(i)) continue;
        auto payload = finishBlock(*deflater);
        deflater = std::make_unique<CVekDeflater>(doubled(payload->length), kDefaultLevel);
        appendPayload(*payloads, std::move(payload));
        inBlock = 0;
    }
    if (consume) m_records.RAVReset();
    return payloads.release();
}

// Appends what `payloads` holds to the payload list, and deletes `payloads`.
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

void CVekTransport::dropPayloads() {
    while (CVekListable* element = m_payloads.RDLHead()) {
        delete payloadOf(element);
        m_payloads.RDLDeleteListable(element);
    }
}

void CVekTransport::resetPackets() {
    delete m_packets;
    m_packets = new CVekAtomVector(0);
    m_expected = 0;
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

// Takes the packet at `buffer` over; it comes from `malloc`.
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

int CVekTransport::RTSetDestination(RvSender* sender) {
    if (m_engine == nullptr) {
        m_sender = sender;
        return kvx::kOk;
    }
    return RTSetDestinationOnSubject(sender != nullptr ? sender->subject() : nullptr);
}

int CVekTransport::RTSetDestination(const char* subject) {
    if (m_engine == nullptr) return kvx::kInvalidArgument;
    std::free(m_subject);
    m_subject = nullptr;
    if (subject == nullptr) return kvx::kOk;
    m_subject = m_engine->RRNDomainSubj(subject);
    if (m_subject == nullptr) reportTransport(kvx::kInvalidArgument, nullptr);
    return kvx::kOk;
}

int CVekTransport::RTSetDestinationOnSubject(const char* subject) {
    if (m_engine == nullptr) return kvx::kInvalidArgument;
    char* copy = subject != nullptr ? strdup(subject) : nullptr;
    if (subject != nullptr && copy == nullptr) reportTransport(kvx::kNoMemory, nullptr);
    std::free(m_subject);
    m_subject = copy;
    return kvx::kOk;
}

void CVekTransport::RTSetDataCallbackPtr(RvDataCallback* callback) {
    m_dataCallback = callback;
}

RvDataCallback* CVekTransport::RTGetDataCallbackPtr() const {
    return m_dataCallback;
}

int CVekTransport::RTSendAll(bool front) {
    const bool hasDestination = m_engine != nullptr ? m_subject != nullptr : m_sender != nullptr;
    if (!hasDestination) return kvx::kInvalidArgument;
    for (unsigned i = 0; i < m_packets->RAVSize(); ++i) {
        sendPacket(*m_packets->RAVGetValue(i), front);
    }
    resetPackets();
    return kvx::kOk;
}

void CVekTransport::sendPacket(const CVekAtom& packet, bool front) {
    unsigned char* bytes = nullptr;
    int length = 0;
    const int result = packet.RAUChar(&bytes, &length);
    if (result != kvx::kOk) reportTransport(result, nullptr);
    auto message = std::make_unique<RvMsg>(kMessageSize);
    message->append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(length), bytes);
    if (m_engine == nullptr) {
        kvx::traceUnlessQuiet(
            "-----------------if not in main thread this is NOT safe!---------\n");
        m_sender->send(*message);
    } else if (front) {
        m_engine->REAddToSendQueueFront(m_subject, message.release(), m_dataCallback, FALSE);
    } else {
        m_engine->REAddToSendQueue(m_subject, message.release(), m_dataCallback, FALSE);
    }
}

int CVekTransport::RTSendHB() {
    return RTSendAll(true);
}

CVekAtomVector* CVekTransport::RTEncodes() {
    CVekAtomVector* packets = m_packets;
    m_packets = new CVekAtomVector(0);
    m_expected = 0;
    RTPurge();
    return packets;
}

CVekAtom* CVekTransport::RTDecodeMessage(RvMsg* message, int& status) {
    const std::unique_ptr<RvMsgIterator> fields(message != nullptr ? message->newIterator()
                                                                   : nullptr);
    if (fields == nullptr) {
        status = kBadPacket;
        reportTransport(kBadPacket, "CVekTransport::RTDecodeMessage");
        return nullptr;
    }
    std::unique_ptr<CVekAtom> packet;
    for (const RvDatum* field = fields->next(); field != nullptr;
         field = status == kvx::kOk ? fields->next() : nullptr) {
        if (field->type() == RVMSG_OPAQUE) {
            packet = copyOfField(*field);
            continue;
        }
        status = kBadPacket;
        reportTransport(kBadPacket, "CVekTransport::RTDecodeMessage");
    }
    return packet.release();
}

int CVekTransport::RTAddMessage(RvMsg* message) {
    if (message == nullptr) return kvx::kOk;
    int status = kvx::kOk;
    std::unique_ptr<CVekAtom> packet(RTDecodeMessage(message, status));
    if (status != kvx::kOk || packet == nullptr) return status;
    const int result = RTAddMessage(packet.get());
    if (result == kvx::kOk) static_cast<void>(packet.release());
    return result;
}

int CVekTransport::RTAddMessage(CVekAtom* packet) {
    if (packet == nullptr) return kvx::kMissingArgument;
    unsigned char* bytes = nullptr;
    int length = 0;
    packet->RAUChar(&bytes, &length);
    if (bytes == nullptr) return kvx::kMissingArgument;
    const auto header = kvx::packet::readHeader(bytesOf(*packet));
    if (m_expected == 0 && header.has_value()) {
        m_expected = static_cast<std::uint32_t>(header->count);
        m_packets->RAVMakeSpace(std::min(m_expected, kMostReserved));
    }
    return m_packets->RAVAddToEnd(packet);
}

__boolean CVekTransport::RTDone() {
    return m_packets->RAVSize() == m_expected ? TRUE : FALSE;
}

CVekBag* CVekTransport::RTDecodes() {
    auto records = std::make_unique<CVekBag>();
    for (unsigned i = 0; i < m_packets->RAVSize(); ++i) {
        if (!decodePacket(*m_packets->RAVGetValue(i), *records)) {
            reportTransport(kBadPacket, "CVekTransport::RTDecodes");
        }
    }
    return records.release();
}

// Returns whether the packet was free of defects.
bool CVekTransport::decodePacket(const CVekAtom& packet, CVekBag& out) {
    unsigned char* bytes = nullptr;
    int length = 0;
    packet.RAUChar(&bytes, &length);
    const auto header = kvx::packet::readHeader(bytesOf(packet));
    if (!header.has_value()) return false;
    m_storeStatus = static_cast<EVekStoreErrorStatus>(header->status);
    const int start = static_cast<int>(kvx::packet::kHeaderSize) + header->extension;
    if (start > length) return false;
    const bool compressed =
        header->kind == kvx::packet::kCompressed && header->version == VEK_TRANS_V1;
    return compressed ? RTDecodeCompressedPayload(bytes + start, length - start, out)
                      : RTDecodePayload(bytes + start, length - start, out);
}

bool CVekTransport::RTDecodePayload(unsigned char* data, int length, CVekBag& out) {
    kvx::packet::RecordReader records(Bytes(data, static_cast<std::size_t>(length)));
    while (const auto record = records.next()) {
        out.RBAdd(new CVekAtom(record->data(), static_cast<int>(record->size())));
    }
    return !records.isDefective();
}

bool CVekTransport::RTDecodeCompressedPayload(unsigned char* data, int length, CVekBag& out) {
    constexpr int kLengthSize = kvx::packet::kLengthSize;
    if (length < kLengthSize) return false;
    const std::uint32_t size = kvx::loadBig32(data);
    if (!kvx::packet::isPlausible(size, static_cast<std::size_t>(length - kLengthSize))) {
        return false;
    }
    // One byte more, so that no length gives no buffer.
    const std::unique_ptr<unsigned char, SVekTransPayload::Free> inflated(
        static_cast<unsigned char*>(std::malloc(std::size_t{size} + 1)));
    if (inflated == nullptr) {
        reportTransport(kvx::kNoMemory, nullptr);
        return true;
    }
    CVekInflater inflater(data + kLengthSize, length - kLengthSize);
    inflater.RIInflateChunk(inflated.get(), static_cast<int>(size));
    const int inflatedLength = inflater.RIInflatedLength();
    const bool isWhole = RTDecodePayload(inflated.get(), inflatedLength, out);
    return isWhole && static_cast<std::uint32_t>(inflatedLength) == size;
}

int CVekTransport::RTPurge() {
    m_storeStatus = STORE_COMPLETE;
    resetPackets();
    dropPayloads();
    return kvx::kOk;
}

void CVekTransport::RTSetError(EVekStoreErrorStatus status) {
    m_storeStatus = status;
}

EVekStoreErrorStatus CVekTransport::RTError() {
    return m_storeStatus;
}

char* CVekTransport::RTPrintError(EVekStoreErrorStatus status, const char* text) {
    CVekString line("( ");
    if (text != nullptr) line.RSStrCat(text);
    if (status >= 0 && static_cast<std::size_t>(status) < std::size(kStatusTexts)) {
        line.RSStrCat(kStatusTexts[status]);
    } else {
        reportTransport(kvx::kNotCompleted, "Undefined error string for StoreError event.");
        line.RSStrCat(" )");
    }
    return line.RSTakeString();
}

void CVekTransport::RTPrintError(const char* text) {
    char* line = RTPrintError(m_storeStatus, text);
    kvx::writeGuarded(std::cout, line != nullptr ? line : " NULL error string ", '\n');
    std::free(line);
}
