// Packets of a peer, collected and decoded: no read past the end of a packet, and the output is
// bounded by the input.
//
// The input is a sequence of packets, each preceded by its length in 2 big-endian bytes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "foundation/foundation.h"
#include "mom/transport/CVekTransport.h"

namespace {

constexpr std::size_t kLargestExpansion = 1032;  // most bytes that one compressed byte expands to
constexpr std::size_t kSlack = 4096;

void ignoreReport(int, const char*, int, const char*) {}

void addPackets(CVekTransport& transport, const std::uint8_t* data, std::size_t size) {
    while (size >= 2) {
        std::size_t length = static_cast<std::size_t>(data[0]) << 8 | data[1];
        data += 2;
        size -= 2;
        if (length > size) length = size;
        auto packet = std::make_unique<CVekAtom>(data, static_cast<int>(length));
        if (transport.RTAddMessage(packet.get()) == 1) static_cast<void>(packet.release());
        data += length;
        size -= length;
    }
}

// The total bytes of all records of the bag, which are deleted.
std::size_t takeRecords(const CVekBag& bag) {
    std::size_t total = 0;
    for (unsigned i = 0; i < bag.RBSize(); ++i) {
        const std::unique_ptr<CVekAtom> record(static_cast<CVekAtom*>(bag.RBGet(i)));
        unsigned char* bytes = nullptr;
        int length = 0;
        if (record->RAUChar(&bytes, &length) != 1 || length < 1) std::abort();
        total += static_cast<std::size_t>(length);
    }
    return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CVekError::SetHandler(&ignoreReport);
    CVekTransport transport(nullptr);
    addPackets(transport, data, size);
    static_cast<void>(transport.RTDone());
    const std::unique_ptr<CVekBag> bag(transport.RTDecodes());
    if (takeRecords(*bag) > size * kLargestExpansion + size * kSlack) std::abort();
    return 0;
}
