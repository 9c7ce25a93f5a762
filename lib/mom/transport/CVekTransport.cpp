#include "mom/transport/CVekTransport.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "foundation/ErrorCodes.h"
#include "foundation/foundation.h"
#include "mom/base/VekTrace.h"
#include "mom/transport/EngineOperations.h"
#include "mom/transport/TransportPacket.h"
#include "mom/transport/TransportPayload.h"
#include "rv/message/RvMsg.h"
#include "rv/object/RvSender.h"

// Records pass through three stages. The record vector holds encoded records; the payload list
// holds the payloads of packets to come, compressed or not; the packet vector holds whole packets,
// to be sent or as received. `RTPreparePayloads` and `RTCreatePayloads` move records to the payload
// list; `RTCreatePackets` moves payloads to the packet vector, where the number of packets of the
// batch is known. Packing is in CVekTransportPacking.cpp, unpacking in CVekTransportUnpacking.cpp.
//
// The expected packet count belongs to the packet vector: it is set to 0 with every new vector, and
// again by the first packet with a complete header.

using kvx::transport::payloadOf;
using kvx::transport::reportTransport;

namespace {

constexpr unsigned long kMessageSize = 1024;  // bytes of a message before it grows

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

// The destination of packets: with an engine its queue and the subject, else the sender.
struct Destination {
    CVekEngine* engine;
    RvSender* sender;
    std::string subject;
    RvDataCallback* dataCallback;
};

void sendPacket(const CVekAtom& packet, const Destination& to, bool front) {
    unsigned char* bytes = nullptr;
    int length = 0;
    const int result = packet.RAUChar(&bytes, &length);
    if (result != kvx::kOk) reportTransport(result, nullptr);
    auto message = std::make_unique<RvMsg>(kMessageSize);
    message->append("a", RVMSG_OPAQUE, static_cast<rvmsg_Size>(length), bytes);
    if (to.engine == nullptr) {
        kvx::traceUnlessQuiet(
            "-----------------if not in main thread this is NOT safe!---------\n");
        to.sender->send(*message);
    } else {
        kvx::transport::queueSend(*to.engine, to.subject.c_str(), message.release(),
                                  to.dataCallback, front);
    }
}

}  // namespace

CVekTransport::CVekTransport(CVekEngine* engine)
    : m_engine(engine), m_packets(new CVekAtomVector(0)), m_records(0) {}

CVekTransport::~CVekTransport() {
    delete m_packets;
    std::free(m_subject);
    dropPayloads();
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

int CVekTransport::RTSetDestination(RvSender* sender) {
    if (m_engine == nullptr) {
        m_sender = sender;
        return kvx::kOk;
    }
    return RTSetDestinationOnSubject(sender != nullptr ? sender->subject() : nullptr);
}

int CVekTransport::RTSetDestination(const char* subject) {
    if (m_engine == nullptr) return kvx::kInvalidArgument;
    std::free(std::exchange(m_subject, nullptr));
    if (subject == nullptr) return kvx::kOk;
    m_subject = kvx::transport::qualifiedSubject(*m_engine, subject);
    if (m_subject == nullptr) reportTransport(kvx::kInvalidArgument, nullptr);
    return kvx::kOk;
}

int CVekTransport::RTSetDestinationOnSubject(const char* subject) {
    if (m_engine == nullptr) return kvx::kInvalidArgument;
    char* copy = subject != nullptr ? strdup(subject) : nullptr;
    std::free(std::exchange(m_subject, copy));
    if (subject != nullptr && copy == nullptr) reportTransport(kvx::kNoMemory, nullptr);
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
        if (m_packets->RAVGetValue(i)->RALength() <= kvx::packet::kLargestPacket) continue;
        reportTransport(kvx::kInvalidArgument, "CVekTransport::RTSendAll");
        return kvx::kInvalidArgument;
    }
    // A send may run code that purges, redirects or destroys this transport.
    const Destination to = {m_engine, m_sender, m_subject != nullptr ? m_subject : "",
                            m_dataCallback};
    const std::unique_ptr<CVekAtomVector> packets(m_packets);
    m_packets = new CVekAtomVector(0);
    m_expected = 0;
    for (unsigned i = 0; i < packets->RAVSize(); ++i) {
        sendPacket(*packets->RAVGetValue(i), to, front);
    }
    return kvx::kOk;
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
