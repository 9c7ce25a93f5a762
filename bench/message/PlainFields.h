#pragma once

#include <cstddef>
#include <cstdint>

/// The hand-written loop that the message format is compared with: fields as name length, name,
/// type, one size byte and data, in a buffer with a checked end. No paths, no nesting, no longer
/// sizes.
namespace kvx::bench {

struct PlainField {
    const char* name;
    std::uint8_t type;
    std::uint8_t size;
    const void* data;  // numbers of 2, 4 and 8 bytes in the machine's order
};

/// The new end, or null without room.
std::uint8_t* appendPlain(std::uint8_t* at, const std::uint8_t* end, const PlainField& field);

/// Steps over one field, its number decoded into `scratch`; null at a field that runs past the end.
const std::uint8_t* readPlain(const std::uint8_t* at, const std::uint8_t* end, void* scratch,
                              PlainField& field);

/// The first field called `name`; false when there is none.
bool findPlain(const std::uint8_t* at, const std::uint8_t* end, const char* name, void* scratch,
               PlainField& field);

}  // namespace kvx::bench
