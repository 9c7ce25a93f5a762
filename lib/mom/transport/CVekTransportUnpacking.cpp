// Unpacking: collecting the packets of a batch, and reading the records of each.
//
// Packets are kept as they come, in order of arrival; the first complete header sets the number
// that the batch is complete with. Decoding reads every packet on its own: a plain payload in
// place, a compressed one in a buffer of its announced length, which is checked for plausibility
// before it is allocated. A defect ends the packet, not the batch: the records before it are kept.

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "foundation/foundation.h"
#include "mom/base/VekCodes.h"
#include "mom/transport/CVekInflater.h"
#include "mom/transport/CVekTransport.h"
#include "mom/transport/TransportPacket.h"
#include "mom/transport/TransportPayload.h"
#include "mom/transport/ZlibBlock.h"
#include "rv/message/RvMsg.h"
#include "rv/message/RvMsgIterator.h"
#include "rv/message/WireReader.h"

using kvx::packet::Bytes;
using kvx::transport::bytesOf;
using kvx::transport::reportTransport;

namespace {

constexpr std::uint32_t kMostReserved = 4096;  // places reserved for an announced batch

// Copies the bytes of an opaque field into an atom; without memory the atom has no bytes.
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

// Adds up to `most` records of a payload to `out`. Returns whether these were all, without a
// defect.
bool addRecords(Bytes payload, std::size_t most, CVekBag& out) {
    kvx::packet::RecordReader records(payload);
    for (std::size_t added = 0; const auto record = records.next(); ++added) {
        if (added == most) return false;
        out.RBAdd(new CVekAtom(record->data(), static_cast<int>(record->size())));
    }
    return !records.isDefective();
}

}  // namespace

CVekAtom* CVekTransport::RTDecodeMessage(RvMsg* message, int& status) {
    const std::unique_ptr<RvMsgIterator> fields(message != nullptr ? message->newIterator()
                                                                   : nullptr);
    if (fields == nullptr) {
        status = kvx::kBadPacket;
        reportTransport(kvx::kBadPacket, "CVekTransport::RTDecodeMessage");
        return nullptr;
    }
    std::unique_ptr<CVekAtom> packet;
    for (const RvDatum* field = fields->next(); field != nullptr;
         field = status == kvx::kOk ? fields->next() : nullptr) {
        if (field->type() == RVMSG_OPAQUE) {
            packet = copyOfField(*field);
            continue;
        }
        status = kvx::kBadPacket;
        reportTransport(kvx::kBadPacket, "CVekTransport::RTDecodeMessage");
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
            reportTransport(kvx::kBadPacket, "CVekTransport::RTDecodes");
        }
    }
    return records.release();
}

// Returns whether the packet had no defect.
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
    return addRecords({data, static_cast<std::size_t>(length)},
                      std::numeric_limits<std::size_t>::max(), out);
}

bool CVekTransport::RTDecodeCompressedPayload(unsigned char* data, int length, CVekBag& out) {
    constexpr int kLengthSize = kvx::packet::kLengthSize;
    if (length < kLengthSize) return false;
    const std::uint32_t size = kvx::loadBig32(data);
    if (!kvx::packet::isPlausible(size, static_cast<std::size_t>(length - kLengthSize))) {
        return false;
    }
    // One byte more, so that length 0 gets a buffer.
    const std::unique_ptr<unsigned char, SVekTransPayload::Free> inflated(
        static_cast<unsigned char*>(std::malloc(std::size_t{size} + 1)));
    if (inflated == nullptr) {
        reportTransport(kvx::kNoMemory, nullptr);
        return true;
    }
    std::size_t inflatedLength = size;
    const Bytes stream(data + kLengthSize, static_cast<std::size_t>(length - kLengthSize));
    if (!kvx::transport::inflateWhole(stream, {inflated.get(), size})) {
        // What comes before its defect counts.
        CVekInflater inflater(data + kLengthSize, length - kLengthSize);
        inflater.RIInflateChunk(inflated.get(), static_cast<int>(size));
        inflatedLength = static_cast<std::size_t>(inflater.RIInflatedLength());
    }
    const bool isWhole =
        addRecords({inflated.get(), inflatedLength}, kvx::packet::kMostRecords, out);
    return isWhole && inflatedLength == size;
}
