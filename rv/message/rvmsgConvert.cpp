// Converting a decoded value into another type and size.
//
// One function per source type, each a small table of target types. Numbers behave as with a 32-bit
// `long`: texts are parsed and printed, and values cut, to that width. A few odd results are part
// of the contract: an 8-byte integer prints its low word first, and reading one as an unsigned or
// as an 8-byte value copies its bytes and still reports failure.

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <optional>

#include "rv/error/rvCodes.h"
#include "rv/message/WireFormat.h"
#include "rv/message/rvmsg.h"

namespace {

namespace code = kvx::message_code;

// Required capacities of a string target. The terminator is written even where they do not count
// it.
constexpr rvmsg_Size kBooleanText = 6;
constexpr rvmsg_Size kPortText = 4;
constexpr rvmsg_Size kAddressText = 8;
constexpr rvmsg_Size kLongIntegerText = 16;
constexpr rvmsg_Size kFloatText = 16;
constexpr rvmsg_Size kDoubleText = 25;
constexpr rvmsg_Size kMaxUnterminatedText =
    4;  // bytes of the longest text that parses without a terminator

struct Source {
    rvmsg_Type type;
    rvmsg_Size size;
    rvmsg_Data data;
};

struct Target {
    rvmsg_Type type;
    rvmsg_Size size;
    void* data;
};

template <class Value>
Value valueAt(rvmsg_Data data) {
    Value value;
    std::memcpy(&value, data, sizeof value);
    return value;
}

template <class Value>
int put(const Target& target, Value value) {
    std::memcpy(target.data, &value, sizeof value);
    return code::kOk;
}

int putText(const Target& target, const char* text) {
    std::memcpy(target.data, text, std::strlen(text) + 1);
    return code::kOk;
}

// Integers and booleans: cut to the target's width.
int putInteger(const Target& target, std::uint64_t value) {
    switch (target.size) {
        case 1:
            return put(target, static_cast<std::uint8_t>(value));
        case 2:
            return put(target, static_cast<std::uint16_t>(value));
        case 4:
            return put(target, static_cast<std::uint32_t>(value));
        default:
            return code::kInvalidArgument;
    }
}

int putReal(const Target& target, double value) {
    switch (target.size) {
        case sizeof(float):
            return put(target, static_cast<float>(value));
        case sizeof(double):
            return put(target, value);
        default:
            return code::kInvalidArgument;
    }
}

int putAddress(const Target& target, std::uint64_t value) {
    switch (target.size) {
        case 2:
            kvx::storeBig16(target.data, static_cast<std::uint16_t>(value));
            return code::kOk;
        case 4:
            kvx::storeBig32(target.data, static_cast<std::uint32_t>(value));
            return code::kOk;
        default:
            return code::kInvalidArgument;
    }
}

int putDateText(const Target& target, const std::uint32_t* words) {
    const auto high = static_cast<std::int8_t>(words[0]);
    const auto seconds = static_cast<std::int64_t>(
        static_cast<std::uint64_t>(static_cast<std::int64_t>(high)) << 32U | words[1]);
    if (seconds != static_cast<std::int32_t>(seconds)) return code::kInvalidArgument;
    const std::time_t time = seconds;
    char text[32];
    if (ctime_r(&time, text) == nullptr) return code::kInvalidArgument;
    if (std::strlen(text) + 1 > target.size) return code::kInvalidArgument;
    return putText(target, text);
}

int fromDateTime(const Source& source, const Target& target) {
    if (source.size != kvx::kDateTimeBytes) return code::kInvalidArgument;
    std::uint32_t words[3];
    std::memcpy(words, source.data, sizeof words);
    if (target.type == RVMSG_STRING) return putDateText(target, words);
    if (target.type != RVMSG_DATETIME || target.size < sizeof words) return code::kInvalidArgument;
    std::memcpy(target.data, words, sizeof words);
    return code::kOk;
}

// A text with a terminator within its size, or short enough to be copied and terminated.
class NumericText {
  public:
    explicit NumericText(const Source& source) : text_(static_cast<const char*>(source.data)) {
        if (std::memchr(text_, 0, source.size) != nullptr) return;
        if (source.size > kMaxUnterminatedText) {
            text_ = nullptr;
            return;
        }
        std::memcpy(copy_, text_, source.size);
        text_ = copy_;
    }

    // The result of `parse(text, end)` if it consumes the whole text.
    template <class Parse>
    auto parsed(Parse parse) const -> std::optional<decltype(parse(nullptr, nullptr))> {
        if (text_ == nullptr) return std::nullopt;
        char* end = nullptr;
        const auto value = parse(text_, &end);
        if (*end != 0) return std::nullopt;
        return value;
    }

  private:
    const char* text_;
    char copy_[kMaxUnterminatedText + 1] = {};
};

std::int32_t parseSigned(const char* text, char** end) {
    const long long value = std::strtoll(text, end, 10);
    return static_cast<std::int32_t>(std::clamp<long long>(
        value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

// 32-bit strtoul: an overflow gives the largest value, a minus sign negates.
template <int base>
std::uint32_t parseUnsigned(const char* text, char** end) {
    errno = 0;
    const unsigned long long value = std::strtoull(text, end, base);
    const char* const sign = text + std::strspn(text, " \t\n\v\f\r");
    const unsigned long long magnitude = *sign == '-' ? 0 - value : value;
    if (errno == ERANGE || magnitude > UINT32_MAX) return UINT32_MAX;
    return static_cast<std::uint32_t>(value);
}

// The decimal point is a full stop, whatever the locale of this process.
double parseReal(const char* text, char** end) {
    static const locale_t classic = newlocale(LC_ALL_MASK, "C", nullptr);
    return strtod_l(text, end, classic);
}

int putString(const Target& target, const Source& source) {
    if (target.size < source.size) return code::kInvalidArgument;
    auto* const out = static_cast<char*>(target.data);
    std::memmove(out, source.data, source.size);
    // A text without a terminator gets one where there is room.
    const bool isTerminated = source.size != 0 && out[source.size - 1] == 0;
    if (!isTerminated && target.size > source.size) out[source.size] = 0;
    return code::kOk;
}

int fromString(Source source, const Target& target) {
    if (source.size == 0) {
        source.size =
            static_cast<rvmsg_Size>(std::strlen(static_cast<const char*>(source.data)) + 1);
    }
    const NumericText text(source);
    switch (target.type) {
        case RVMSG_STRING:
            return putString(target, source);
        case RVMSG_BOOLEAN: {
            const char first = *static_cast<const char*>(source.data);
            return putInteger(target, first == 'T' || first == 't' ? 1 : 0);
        }
        case RVMSG_IPDATA: {
            const auto value = text.parsed(parseUnsigned<16>);
            return value ? putAddress(target, *value) : code::kInvalidArgument;
        }
        case RVMSG_INT: {
            const auto value = text.parsed(parseSigned);
            return value ? putInteger(target, static_cast<std::uint32_t>(*value))
                         : code::kInvalidArgument;
        }
        case RVMSG_UINT: {
            const auto value = text.parsed(parseUnsigned<10>);
            return value ? putInteger(target, *value) : code::kInvalidArgument;
        }
        case RVMSG_REAL: {
            const auto value = text.parsed(parseReal);
            return value ? putReal(target, *value) : code::kInvalidArgument;
        }
        default:
            return code::kInvalidArgument;
    }
}

int fromBoolean(const Source& source, const Target& target) {
    if (source.size != 1 && source.size != 2 && source.size != 4) return code::kInvalidArgument;
    std::uint32_t word = 0;
    std::memcpy(&word, source.data, source.size);
    const bool value = word != 0;
    switch (target.type) {
        case RVMSG_STRING:
            if (target.size < kBooleanText) return code::kInvalidArgument;
            return putText(target, value ? "True" : "False");
        case RVMSG_BOOLEAN:
        case RVMSG_INT:
        case RVMSG_UINT:
            return putInteger(target, value ? 1 : 0);
        case RVMSG_REAL:
            return putReal(target, value ? 1.0 : 0.0);
        default:
            return code::kInvalidArgument;
    }
}

int fromAddress(const Source& source, const Target& target) {
    if (source.size != 2 && source.size != 4) return code::kInvalidArgument;
    const bool isPort = source.size == 2;
    const std::uint32_t value = isPort ? kvx::loadBig16(source.data) : kvx::loadBig32(source.data);
    switch (target.type) {
        case RVMSG_STRING: {
            if (target.size < (isPort ? kPortText : kAddressText)) return code::kInvalidArgument;
            char text[kAddressText + 1];
            std::snprintf(text, sizeof text, isPort ? "%04x" : "%08x", value);
            return putText(target, text);
        }
        case RVMSG_IPDATA:
            return putAddress(target, value);
        case RVMSG_INT:
        case RVMSG_UINT:
            return putInteger(target, value);
        default:
            return code::kInvalidArgument;
    }
}

// The value, sign-extended for signed types; nothing for a size that integers do not have.
std::optional<std::uint64_t> integerOf(const Source& source) {
    const bool isSigned = source.type == RVMSG_INT;
    const auto extended = [isSigned](auto value) {
        using Signed = std::make_signed_t<decltype(value)>;
        return isSigned ? static_cast<std::uint64_t>(
                              static_cast<std::int64_t>(static_cast<Signed>(value)))
                        : static_cast<std::uint64_t>(value);
    };
    switch (source.size) {
        case 1:
            return extended(valueAt<std::uint8_t>(source.data));
        case 2:
            return extended(valueAt<std::uint16_t>(source.data));
        case 4:
            return extended(valueAt<std::uint32_t>(source.data));
        case 8:
            return valueAt<std::uint64_t>(source.data);
        default:
            return std::nullopt;
    }
}

rvmsg_Size integerTextCapacity(rvmsg_Size sourceSize) {
    switch (sourceSize) {
        case 1:
            return 5;
        case 2:
            return 7;
        case 4:
            return 12;
        default:
            return kLongIntegerText;
    }
}

int putIntegerText(const Source& source, const Target& target, std::uint64_t value) {
    if (target.size < integerTextCapacity(source.size)) return code::kInvalidArgument;
    char text[24];
    if (source.size == sizeof value) {
        std::snprintf(text, sizeof text, "%08x%08x", static_cast<std::uint32_t>(value),
                      static_cast<std::uint32_t>(value >> 32U));
    } else if (source.type == RVMSG_INT) {
        std::snprintf(text, sizeof text, "%d", static_cast<std::int32_t>(value));
    } else {
        std::snprintf(text, sizeof text, "%u", static_cast<std::uint32_t>(value));
    }
    return putText(target, text);
}

int putIntegerAsInteger(const Source& source, const Target& target, std::uint64_t value) {
    if (source.size != sizeof value) return putInteger(target, value);
    if (target.type == RVMSG_INT && target.size != sizeof value) return putInteger(target, value);
    std::memcpy(target.data, &value, std::min<std::size_t>(target.size, sizeof value));
    return code::kInvalidArgument;
}

int fromInteger(const Source& source, const Target& target) {
    const std::optional<std::uint64_t> value = integerOf(source);
    if (!value) return code::kInvalidArgument;
    switch (target.type) {
        case RVMSG_STRING:
            return putIntegerText(source, target, *value);
        case RVMSG_BOOLEAN:
            return putInteger(target, *value != 0 ? 1 : 0);
        case RVMSG_IPDATA:
            return putAddress(target, *value);
        case RVMSG_INT:
        case RVMSG_UINT:
            return putIntegerAsInteger(source, target, *value);
        case RVMSG_REAL:
            return putReal(target, source.type == RVMSG_INT
                                       ? static_cast<double>(static_cast<std::int64_t>(*value))
                                       : static_cast<double>(*value));
        default:
            return code::kInvalidArgument;
    }
}

// Toward zero; out of range gives the smallest 64-bit integer.
std::uint64_t truncated(double value) {
    constexpr double kLimit = 9223372036854775808.0;
    if (!(value >= -kLimit && value < kLimit)) return std::uint64_t{1} << 63U;
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
}

int fromReal(const Source& source, const Target& target) {
    if (source.size != sizeof(float) && source.size != sizeof(double)) {
        return code::kInvalidArgument;
    }
    const bool isFloat = source.size == sizeof(float);
    const double value = isFloat ? valueAt<float>(source.data) : valueAt<double>(source.data);
    switch (target.type) {
        case RVMSG_STRING: {
            if (target.size < (isFloat ? kFloatText : kDoubleText)) return code::kInvalidArgument;
            // "%g", independent of the locale.
            char text[kDoubleText] = {};
            std::to_chars(std::begin(text), std::end(text) - 1, value, std::chars_format::general,
                          6);
            return putText(target, text);
        }
        case RVMSG_BOOLEAN:
            return putInteger(target, value != 0.0 ? 1 : 0);
        case RVMSG_INT:
        case RVMSG_UINT:
            return putInteger(target, truncated(value));
        case RVMSG_REAL:
            return putReal(target, value);
        default:
            return code::kInvalidArgument;
    }
}

}  // namespace

int rvmsg_Convert(rvmsg_Type targetType, rvmsg_Size targetSize, void* target, rvmsg_Type sourceType,
                  rvmsg_Size sourceSize, rvmsg_Data source) {
    if (target == nullptr || source == nullptr) return code::kInvalidArgument;
    const Source from{sourceType, sourceSize, source};
    const Target to{targetType, targetSize, target};
    switch (sourceType) {
        case RVMSG_DATETIME:
            return fromDateTime(from, to);
        case RVMSG_STRING:
            return fromString(from, to);
        case RVMSG_BOOLEAN:
            return fromBoolean(from, to);
        case RVMSG_IPDATA:
            return fromAddress(from, to);
        case RVMSG_INT:
        case RVMSG_UINT:
            return fromInteger(from, to);
        case RVMSG_REAL:
            return fromReal(from, to);
        default:
            return code::kInvalidArgument;
    }
}
