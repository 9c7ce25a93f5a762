#include "bench/message/PlainFields.h"

#include <cstring>

namespace kvx::bench {

namespace {

constexpr std::uint8_t kFirstNumberType = 11;  // signed, unsigned, real

// Copies a value of 2, 4 or 8 bytes in reverse byte order.
void copySwapped(void* target, const void* source, std::size_t size) {
    if (size == 2) {
        std::uint16_t value;
        std::memcpy(&value, source, size);
        value = __builtin_bswap16(value);
        std::memcpy(target, &value, size);
    } else if (size == 4) {
        std::uint32_t value;
        std::memcpy(&value, source, size);
        value = __builtin_bswap32(value);
        std::memcpy(target, &value, size);
    } else if (size == 8) {
        std::uint64_t value;
        std::memcpy(&value, source, size);
        value = __builtin_bswap64(value);
        std::memcpy(target, &value, size);
    } else {
        std::memcpy(target, source, size);
    }
}

// Reads everything of a field except its value.
const std::uint8_t* stepPlain(const std::uint8_t* at, const std::uint8_t* end, PlainField& field) {
    const auto left = static_cast<std::size_t>(end - at);
    if (left < 3) return nullptr;
    const std::size_t nameBytes = at[0];
    if (left < nameBytes + 3) return nullptr;
    field.name = reinterpret_cast<const char*>(at + 1);
    at += 1 + nameBytes;
    field.type = at[0];
    field.size = at[1];
    at += 2;
    if (static_cast<std::size_t>(end - at) < field.size) return nullptr;
    field.data = at;
    return at + field.size;
}

void decode(PlainField& field, void* scratch) {
    if (field.type < kFirstNumberType) return;
    copySwapped(scratch, field.data, field.size);
    field.data = scratch;
}

}  // namespace

std::uint8_t* appendPlain(std::uint8_t* at, const std::uint8_t* end, const PlainField& field) {
    const std::size_t nameBytes = std::strlen(field.name) + 1;
    if (static_cast<std::size_t>(end - at) < nameBytes + 3 + field.size) return nullptr;
    *at++ = static_cast<std::uint8_t>(nameBytes);
    std::memcpy(at, field.name, nameBytes);
    at += nameBytes;
    *at++ = field.type;
    *at++ = field.size;
    if (field.type < kFirstNumberType) {
        std::memcpy(at, field.data, field.size);
    } else {
        copySwapped(at, field.data, field.size);
    }
    return at + field.size;
}

const std::uint8_t* readPlain(const std::uint8_t* at, const std::uint8_t* end, void* scratch,
                              PlainField& field) {
    at = stepPlain(at, end, field);
    if (at != nullptr) decode(field, scratch);
    return at;
}

bool findPlain(const std::uint8_t* at, const std::uint8_t* end, const char* name, void* scratch,
               PlainField& field) {
    const std::size_t nameBytes = std::strlen(name) + 1;
    while (at != end) {
        const std::size_t here = at[0];
        at = stepPlain(at, end, field);
        if (at == nullptr) return false;
        if (here != nameBytes || std::memcmp(field.name, name, nameBytes) != 0) continue;
        decode(field, scratch);
        return true;
    }
    return false;
}

}  // namespace kvx::bench
