#include "rv/wire/Greeting.h"
#include "rv/message/WireReader.h"

#include "rv/wire/Bytes.h"

namespace kvx::wire {

GreetingBytes encode(const Greeting& greeting) {
    GreetingBytes bytes{};
    storeBig32(&bytes[0], greeting.first);
    storeBig32(&bytes[4], greeting.version);
    storeBig32(&bytes[8], greeting.third);
    return bytes;
}

Greeting decodeGreeting(std::span<const std::uint8_t, kGreetingSize> bytes) {
    return {loadBig32(&bytes[0]), loadBig32(&bytes[4]), loadBig32(&bytes[8])};
}

bool isKnownVersion(const Greeting& greeting) {
    return greeting.version == kProtocolV3 || greeting.version == kProtocolV4;
}

}  // namespace kvx::wire
