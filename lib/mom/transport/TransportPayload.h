#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "foundation/ErrorCodes.h"
#include "foundation/foundation.h"
#include "mom/transport/TransportPacket.h"

/// A packet to be, without its header.
struct SVekTransPayload {
    struct Free {
        void operator()(unsigned char* bytes) const { std::free(bytes); }
    };

    std::unique_ptr<unsigned char, Free> data;
    std::int32_t length = 0;              // bytes of data
    std::int32_t uncompressedLength = 0;  // bytes; equal to length for a plain payload
    std::uint16_t kind = kvx::packet::kPlain;
};

class CVekEngine;
class RvDataCallback;
class RvDatum;

namespace kvx::transport {

// What a transport asks of its engine, defined beside the engine's send queue: the transport itself
// knows no engine.

/// As `CVekRvNet::RRNDomainSubj`.
char* qualifiedSubject(CVekEngine& engine, const char* subject);

/// Queues a send on exactly `subject`, which waits for the latency; `front` puts it ahead of all
/// that waits. Takes ownership of `datum`.
void queueSend(CVekEngine& engine, const char* subject, RvDatum* datum,
               const RvDataCallback* callback, bool front);

/// The contract gives the reports of `CVekTransport` no lines.
inline void reportTransport(int code, const char* text) {
    CVekError(code, "CVekTransport", 0, text);
}

inline SVekTransPayload* payloadOf(const CVekListable* element) {
    return static_cast<SVekTransPayload*>(static_cast<const CVekPointer*>(element)->RPData());
}

/// The bytes of an atom, which keeps them; none for an atom of another kind.
inline packet::Bytes bytesOf(const CVekAtom& atom) {
    unsigned char* bytes = nullptr;
    int length = 0;
    if (atom.RAUChar(&bytes, &length) != kOk || bytes == nullptr || length <= 0) return {};
    return {bytes, static_cast<std::size_t>(length)};
}

}  // namespace kvx::transport
