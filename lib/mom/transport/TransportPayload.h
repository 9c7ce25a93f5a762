#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "foundation/ErrorCodes.h"
#include "foundation/foundation.h"
#include "mom/transport/TransportPacket.h"

/// The payload of a packet to come.
struct SVekTransPayload {
    struct Free {
        void operator()(unsigned char* bytes) const { std::free(bytes); }
    };

    std::unique_ptr<unsigned char, Free> data;
    std::int32_t length = 0;              // bytes of data
    std::int32_t uncompressedLength = 0;  // bytes; equal to length for a plain payload
    std::uint16_t kind = kvx::packet::kPlain;
};

namespace kvx::transport {

/// Reports of `CVekTransport` have no line numbers.
inline void reportTransport(int code, const char* text) {
    CVekError(code, "CVekTransport", 0, text);
}

inline SVekTransPayload* payloadOf(const CVekListable* element) {
    return static_cast<SVekTransPayload*>(static_cast<const CVekPointer*>(element)->RPData());
}

/// The bytes of an atom, which owns them; none for an atom of another kind.
inline packet::Bytes bytesOf(const CVekAtom& atom) {
    unsigned char* bytes = nullptr;
    int length = 0;
    if (atom.RAUChar(&bytes, &length) != kOk || bytes == nullptr || length <= 0) return {};
    return {bytes, static_cast<std::size_t>(length)};
}

}  // namespace kvx::transport
