#include "rv/wire/Greeting.h"
#include "rv/message/WireReader.h"

#include "rv/wire/Bytes.h"

namespace kvx::wire {

GreetingBytes encode(const Greeting& greeting) {
    GreetingBytes bytes{};
    std::uint8_t* words = bytes.data();
    storeBig32(words, greeting.first);
    storeBig32(words + 4, greeting.version);
    storeBig32(words + 8, greeting.third);
    return bytes;
}

Greeting decodeGreeting(std::span<const std::uint8_t, kGreetingSize> bytes) {
    const std::uint8_t* words = bytes.data();
    return {loadBig32(words), loadBig32(words + 4), loadBig32(words + 8)};
}

bool isKnownVersion(const Greeting& greeting) {
    return greeting.version == kProtocolV3 || greeting.version == kProtocolV4;
}

}  // namespace kvx::wire
