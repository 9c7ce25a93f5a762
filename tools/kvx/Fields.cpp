// Fields from the command line. One table has the type names; each entry parses the whole text of
// the value or refuses it, so that no field silently gets another value than the user typed.

#include "tools/kvx/Fields.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

namespace kvx::tool {

namespace {

using Bytes = std::vector<unsigned char>;

struct FieldType {
    std::string_view name;
    rvmsg_Type type;
    std::optional<Bytes> (*read)(const std::string& value);
};

template <class Number>
Bytes imageOf(Number number) {
    const auto* begin = reinterpret_cast<const unsigned char*>(&number);
    return Bytes(begin, begin + sizeof number);
}

template <class Number>
std::optional<Bytes> readNumber(const std::string& value) {
    Number number{};
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size()) return std::nullopt;
    return imageOf(number);
}

std::optional<Bytes> readBoolean(const std::string& value) {
    if (value == "true" || value == "1") return imageOf(std::uint8_t{1});
    if (value == "false" || value == "0") return imageOf(std::uint8_t{0});
    return std::nullopt;
}

std::optional<Bytes> readHex(const std::string& value) {
    if (value.size() % 2 != 0) return std::nullopt;
    Bytes bytes;
    for (std::size_t i = 0; i < value.size(); i += 2) {
        unsigned int byte = 0;
        const char* pair = value.data() + i;
        const auto [end, error] = std::from_chars(pair, pair + 2, byte, 16);
        if (error != std::errc() || end != pair + 2) return std::nullopt;
        bytes.push_back(static_cast<unsigned char>(byte));
    }
    return bytes;
}

std::optional<Bytes> readAddress(const std::string& value) {
    Bytes bytes;
    std::istringstream in(value);
    for (std::string part; std::getline(in, part, '.');) {
        const auto byte = readNumber<std::uint8_t>(part);
        if (!byte) return std::nullopt;
        bytes.push_back(byte->front());
    }
    return bytes.size() == 4 && value.back() != '.' ? std::optional(bytes) : std::nullopt;
}

std::optional<Bytes> readPort(const std::string& value) {
    const auto native = readNumber<std::uint16_t>(value);
    if (!native) return std::nullopt;
    std::uint16_t port = 0;
    std::copy(native->begin(), native->end(), reinterpret_cast<unsigned char*>(&port));
    return Bytes{static_cast<unsigned char>(port >> 8U), static_cast<unsigned char>(port & 0xffU)};
}

std::optional<Bytes> readText(const std::string& value) {
    Bytes bytes(value.begin(), value.end());
    bytes.push_back(0);
    return bytes;
}

std::optional<Bytes> readSubject(const std::string& value) {
    Bytes bytes(1000);
    const int length = rvSubject_FromText(bytes.data(), 1000, value.c_str());
    if (length < 0) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(length));
    return bytes;
}

constexpr std::array<FieldType, 16> kFieldTypes = {{
    {"str", RVMSG_STRING, readText},
    {"i8", RVMSG_INT, readNumber<std::int8_t>},
    {"i16", RVMSG_INT, readNumber<std::int16_t>},
    {"i32", RVMSG_INT, readNumber<std::int32_t>},
    {"i64", RVMSG_INT, readNumber<std::int64_t>},
    {"u8", RVMSG_UINT, readNumber<std::uint8_t>},
    {"u16", RVMSG_UINT, readNumber<std::uint16_t>},
    {"u32", RVMSG_UINT, readNumber<std::uint32_t>},
    {"u64", RVMSG_UINT, readNumber<std::uint64_t>},
    {"f32", RVMSG_REAL, readNumber<float>},
    {"f64", RVMSG_REAL, readNumber<double>},
    {"bool", RVMSG_BOOLEAN, readBoolean},
    {"ip", RVMSG_IPDATA, readAddress},
    {"port", RVMSG_IPDATA, readPort},
    {"subject", RVMSG_SUBJECT, readSubject},
    {"hex", RVMSG_OPAQUE, readHex},
}};

const FieldType* findType(std::string_view name) {
    for (const auto& type : kFieldTypes) {
        if (type.name == name) return &type;
    }
    return nullptr;
}

constexpr std::size_t kLargestMessage = 64U << 20U;  // bytes; the limit of the link

// Reads all of standard input. Returns the error, or an empty text.
std::string readStandardInput(std::string& content) {
    std::array<char, 65536> buffer{};
    errno = 0;
    while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), stdin)) {
        content.append(buffer.data(), count);
        if (content.size() > kLargestMessage) {
            return "standard input holds more than the 64 MiB that a message can carry";
        }
    }
    if (std::ferror(stdin) == 0) return {};
    return "standard input: " + std::generic_category().message(errno);
}

// The datum borrows the text, so an owning copy is returned.
std::unique_ptr<RvDatum> standardInputDatum(bool opaque, PayloadProblem& problem) {
    std::string content;
    problem = {readStandardInput(content), kFailure};
    if (!problem.text.empty()) return nullptr;
    const auto size = static_cast<rvmsg_Size>(content.size());
    if (opaque) return std::make_unique<RvDatum>(RvDatum(RVMSG_OPAQUE, size, content.data()));
    if (content.find('\0') != std::string::npos) {
        problem.text = "standard input holds a zero byte, which no text can; --opaque takes bytes";
        return nullptr;
    }
    return std::make_unique<RvDatum>(RvDatum(RVMSG_STRING, size + 1, content.c_str()));
}

}  // namespace

bool isSubject(const std::string& text) {
    std::array<unsigned char, 500> encoded{};
    return rvSubject_FromText(encoded.data(), encoded.size(), text.c_str()) >= 0;
}

std::string fieldTypes() {
    std::string names;
    for (const auto& type : kFieldTypes) {
        if (!names.empty()) names += ", ";
        names += type.name;
    }
    return names;
}

std::string appendField(RvMsg& message, const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos) return "'" + text + "' is not of the form NAME[:TYPE]=VALUE";
    std::string name = text.substr(0, equals);
    std::string typeName = "str";
    if (const auto colon = name.rfind(':'); colon != std::string::npos) {
        typeName = name.substr(colon + 1);
        name.resize(colon);
    }
    const FieldType* type = findType(typeName);
    if (type == nullptr) return "'" + typeName + "' in '" + text + "' is no field type";
    const auto bytes = type->read(text.substr(equals + 1));
    if (!bytes) return "the value in '" + text + "' is no " + typeName;
    static constexpr unsigned char kNothing = 0;
    const void* data = bytes->empty() ? &kNothing : bytes->data();
    RvStatus status = message.append(name.empty() ? nullptr : name.c_str(), type->type,
                                     static_cast<rvmsg_Size>(bytes->size()), data);
    return status == 0 ? std::string() : "'" + text + "': " + status.text();
}

std::unique_ptr<RvDatum> buildPayload(const Payload& payload, PayloadProblem& problem) {
    if (payload.fields.size() == 1 && payload.fields.front() == "-") {
        return standardInputDatum(payload.opaque, problem);
    }
    if (payload.opaque) {
        problem.text = "--opaque needs - in place of the fields";
        return nullptr;
    }
    auto message = std::make_unique<RvMsg>(1024UL);
    for (const auto& field : payload.fields) {
        problem.text = appendField(*message, field);
        if (!problem.text.empty()) return nullptr;
    }
    return message;
}

}  // namespace kvx::tool
