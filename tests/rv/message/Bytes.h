#pragma once

#include "rv/message/rvmsg.h"

using Bytes = std::vector<std::uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes big32(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24U), static_cast<std::uint8_t>(value >> 16U),
            static_cast<std::uint8_t>(value >> 8U), static_cast<std::uint8_t>(value)};
}

/// A message around hand-written fields.
inline Bytes messageOf(const Bytes& fields) {
    return big32(static_cast<std::uint32_t>(fields.size()) + 8) + big32(0x9955EEAA) + fields;
}

/// A field by hand: everything from the type byte on is given as it is.
inline Bytes fieldOf(const std::string& name, const Bytes& rest) {
    Bytes field = {static_cast<std::uint8_t>(name.empty() ? 0 : name.size() + 1)};
    if (!name.empty()) field = field + Bytes(name.c_str(), name.c_str() + name.size() + 1);
    return field + rest;
}

/// A caller's buffer with a message in it.
struct Buffer {
    explicit Buffer(rvmsg_Size size = 256) : bytes(size) { rvmsg_Init(bytes.data(), size); }

    int append(const char* name, rvmsg_Type type, rvmsg_Size size, const void* data) {
        return rvmsg_Append(bytes.data(), static_cast<rvmsg_Size>(bytes.size()), name, type, size,
                            data);
    }
    int append(const char* name, const char* text) { return append(name, RVMSG_STRING, 0, text); }
    rvmsg_Size length() const {
        rvmsg_Size length = 0;
        rvmsg_Length(bytes.data(), &length);
        return length;
    }
    Bytes message() const { return {bytes.begin(), bytes.begin() + length()}; }
    Bytes fields() const { return {bytes.begin() + 8, bytes.begin() + length()}; }

    Bytes bytes;
};

/// What `write` puts on a stream.
inline std::string printed(const std::function<void(FILE*)>& write) {
    char* text = nullptr;
    std::size_t length = 0;
    FILE* const stream = open_memstream(&text, &length);
    write(stream);
    std::fclose(stream);
    std::string result(text, length);
    std::free(text);
    return result;
}

inline std::string printed(const void* message) {
    return printed([message](FILE* stream) { rvmsg_PrintMsg(message, stream); });
}
