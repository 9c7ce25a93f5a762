// Every type has a writer and a reader, which are each other's inverse. A reader makes the bytes
// that `RvMsg::append` takes, or refuses the value.

#include "tools/bus/MessageJson.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <array>
#include <bit>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include "platform/Socket.h"
#include "platform/Text.h"
#include "rv/message/SubjectView.h"
#include "rv/message/WireFormat.h"
#include "tools/bus/Base64.h"

namespace kvx::bus {

namespace {

using Bytes = std::string;

constexpr std::size_t kMicrosecondDigits = 6;

template <class Number>
Number loadedFrom(const RvDatum& datum) {
    Number number{};
    std::memcpy(&number, datum.data(), std::min<std::size_t>(sizeof number, datum.size()));
    return number;
}

template <class Number>
Bytes imageBytes(Number number) {
    Bytes bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

std::string_view viewOf(const RvDatum& datum) {
    return {static_cast<const char*>(datum.data()), datum.size()};
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = characterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::optional<Bytes> bytesIn(const Json& json) {
    return json.is_string() ? fromBase64(json.get_ref<const std::string&>()) : std::nullopt;
}

// The member of an object with exactly that one.
const Json* onlyMember(const Json& json, const char* name) {
    return json.is_object() && json.size() == 1 && json.contains(name) ? &json[name] : nullptr;
}

std::optional<Bytes> textOrBytes(const Json& json) {
    if (json.is_string()) return json.get<std::string>();
    const Json* const bytes = onlyMember(json, "base64");
    return bytes != nullptr ? bytesIn(*bytes) : std::nullopt;
}

// --- Numbers ---------------------------------------------------------------------------------

template <class Wide>
Json wideNumber(Wide number) {
    const bool isSafe = std::in_range<std::int64_t>(number) &&
                        std::cmp_less_equal(number, kMostExact) &&
                        (std::is_unsigned_v<Wide> || std::cmp_greater_equal(number, -kMostExact));
    return isSafe ? Json(number) : Json(std::to_string(number));
}

template <class One, class Two, class Four, class Eight>
Json integerJson(const RvDatum& datum) {
    switch (datum.size()) {
        case 1:
            return loadedFrom<One>(datum);
        case 2:
            return loadedFrom<Two>(datum);
        case 4:
            return loadedFrom<Four>(datum);
        default:
            return wideNumber(loadedFrom<Eight>(datum));
    }
}

template <class Number>
std::optional<Number> integerIn(const Json& json) {
    if (json.is_number_unsigned()) {
        const auto wide = json.get<std::uint64_t>();
        return std::in_range<Number>(wide) ? std::optional(static_cast<Number>(wide))
                                           : std::nullopt;
    }
    if (json.is_number_integer()) {
        const auto wide = json.get<std::int64_t>();
        return std::in_range<Number>(wide) ? std::optional(static_cast<Number>(wide))
                                           : std::nullopt;
    }
    if (!json.is_string() || sizeof(Number) < sizeof(std::int64_t)) return std::nullopt;
    const auto& text = json.get_ref<const std::string&>();
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

template <class Number>
std::optional<Bytes> readInteger(const Json& json) {
    const auto number = integerIn<Number>(json);
    return number ? std::optional(imageBytes(*number)) : std::nullopt;
}

std::string digitsOf(const Json& wide) {
    const auto& bytes = wide.get_binary();
    return {bytes.begin(), bytes.end()};
}

template <class Real, class Bits>
Json realJson(const RvDatum& datum) {
    const auto number = loadedFrom<Real>(datum);
    const auto bits = std::bit_cast<Bits>(number);
    if (std::isinf(number)) return number > 0 ? "Infinity" : "-Infinity";
    if (!std::isnan(number)) return static_cast<double>(number);
    if (bits == std::bit_cast<Bits>(std::numeric_limits<Real>::quiet_NaN())) return "NaN";
    return fmt::format("NaN:{:0{}x}", bits, 2 * sizeof(Bits));
}

template <class Real, class Bits>
std::optional<Bytes> readReal(const Json& json) {
    using Limits = std::numeric_limits<Real>;
    constexpr std::string_view kBits = "NaN:";
    if (json.is_number() || json.is_binary()) {
        const double number = json.is_binary() ? std::stod(digitsOf(json)) : json.get<double>();
        if (std::abs(number) > static_cast<double>(Limits::max())) return std::nullopt;
        return imageBytes(static_cast<Real>(number));
    }
    if (!json.is_string()) return std::nullopt;
    const std::string_view text = json.get_ref<const std::string&>();
    if (text == "Infinity") return imageBytes(Limits::infinity());
    if (text == "-Infinity") return imageBytes(-Limits::infinity());
    if (text == "NaN") return imageBytes(Limits::quiet_NaN());
    if (!text.starts_with(kBits) || text.size() != kBits.size() + 2 * sizeof(Bits)) {
        return std::nullopt;
    }
    Bits bits{};
    const auto [end, error] =
        std::from_chars(text.data() + kBits.size(), text.data() + text.size(), bits, 16);
    if (error != std::errc() || end != text.data() + text.size() ||
        !std::isnan(std::bit_cast<Real>(bits))) {
        return std::nullopt;
    }
    return imageBytes(bits);
}

// --- Other values ----------------------------------------------------------------------------

Json booleanJson(const RvDatum& datum) {
    const auto byte = loadedFrom<std::uint8_t>(datum);
    return byte > 1 ? Json(byte) : Json(byte == 1);
}

std::optional<Bytes> readBoolean(const Json& json) {
    if (json.is_boolean()) return imageBytes(std::uint8_t{json.get<bool>()});
    return readInteger<std::uint8_t>(json);
}

Json stringJson(const RvDatum& datum) {
    const std::string_view bytes = viewOf(datum);
    if (bytes.empty()) return "";
    const bool isPlain = bytes.find('\0') == bytes.size() - 1;
    const std::string_view text = bytes.substr(0, bytes.size() - 1);
    if (isPlain && isUtf8(text)) return std::string(text);
    return {{"base64", toBase64(bytes)}};
}

std::optional<Bytes> readString(const Json& json) {
    if (!json.is_string()) return textOrBytes(json);
    auto text = json.get<std::string>();
    if (text.find('\0') != std::string::npos) return std::nullopt;
    return text + '\0';
}

Json addressJson(const RvDatum& datum) {
    const std::string_view bytes = viewOf(datum);
    const auto at = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    if (bytes.size() == 2) return at(0) * 256 + at(1);
    if (bytes.size() != 4) return nullptr;
    return fmt::format("{}.{}.{}.{}", at(0), at(1), at(2), at(3));
}

std::optional<Bytes> readAddress(const Json& json) {
    if (!json.is_string()) return std::nullopt;
    const auto address = platform::parseDottedAddress(json.get<std::string>());
    return address ? std::optional(imageBytes(__builtin_bswap32(*address))) : std::nullopt;
}

std::optional<Bytes> readPort(const Json& json) {
    const auto port = integerIn<std::uint16_t>(json);
    return port ? std::optional(imageBytes(__builtin_bswap16(*port))) : std::nullopt;
}

using TimeWords = std::array<std::uint32_t, 3>;  // high byte of the seconds, low word, microseconds

Json dateTimeJson(const RvDatum& datum) {
    const auto words = loadedFrom<TimeWords>(datum);
    const bool isBefore1970 = words[0] == 255;
    if (words[2] >= 1'000'000 || (words[0] != 0 && !isBefore1970)) return {{"words", words}};
    const auto seconds =
        static_cast<std::int64_t>(words[1]) - (isBefore1970 ? std::int64_t{1} << 32 : 0);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z",
                       fmt::gmtime(static_cast<std::time_t>(seconds)), words[2]);
}

// The number in the digits of `text` from `begin` on; nothing when one of them is none.
std::optional<unsigned> digitsAt(std::string_view text, std::size_t begin, std::size_t count) {
    unsigned number = 0;
    for (const char c : text.substr(begin, count)) {
        if (c < '0' || c > '9') return std::nullopt;
        number = number * 10 + static_cast<unsigned>(c - '0');
    }
    return number;
}

// "2026-01-31T12:00:00Z", "2026-01-31T12:00:00.000001Z" and between.
std::optional<TimeWords> timeIn(const std::string& text) {
    constexpr std::string_view kForm = "yyyy-mm-ddThh:mm:ss";
    if (text.size() <= kForm.size()) return std::nullopt;
    for (const std::size_t i : {4U, 7U, 10U, 13U, 16U}) {
        if (text[i] != kForm[i]) return std::nullopt;
    }
    const auto year = digitsAt(text, 0, 4);
    const auto month = digitsAt(text, 5, 2);
    const auto day = digitsAt(text, 8, 2);
    const auto hour = digitsAt(text, 11, 2);
    const auto minute = digitsAt(text, 14, 2);
    const auto second = digitsAt(text, 17, 2);
    if (!year || !month || !day || !hour || !minute || !second) return std::nullopt;
    std::string rest = text.substr(kForm.size());
    if (!rest.ends_with('Z')) return std::nullopt;
    rest.pop_back();
    std::uint32_t micros = 0;
    if (!rest.empty()) {
        std::string digits = rest.substr(1);
        const bool isFraction = rest[0] == '.' && !digits.empty() &&
                                digits.size() <= kMicrosecondDigits &&
                                digits.find_first_not_of("0123456789") == std::string::npos;
        if (!isFraction) return std::nullopt;
        digits.resize(kMicrosecondDigits, '0');
        micros = static_cast<std::uint32_t>(std::stoul(digits));
    }
    const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(*year)),
                                           std::chrono::month(*month), std::chrono::day(*day)};
    if (!date.ok() || *hour > 23 || *minute > 59 || *second > 59) return std::nullopt;
    const std::int64_t seconds =
        std::chrono::sys_days(date).time_since_epoch().count() * std::int64_t{86'400} +
        *hour * 3'600 + *minute * 60 + *second;
    constexpr std::int64_t kSpan = std::int64_t{1} << 32;
    if (seconds < -kSpan || seconds >= kSpan) return std::nullopt;
    return TimeWords{seconds < 0 ? 255U : 0U, static_cast<std::uint32_t>(seconds), micros};
}

std::optional<Bytes> readDateTime(const Json& json) {
    std::optional<TimeWords> words;
    if (json.is_string()) words = timeIn(json.get<std::string>());
    if (const Json* const raw = onlyMember(json, "words"); raw != nullptr && raw->is_array()) {
        words = TimeWords{};
        if (raw->size() != words->size()) return std::nullopt;
        for (std::size_t i = 0; i < words->size(); ++i) {
            const auto word = integerIn<std::uint32_t>((*raw)[i]);
            if (!word) return std::nullopt;
            (*words)[i] = *word;
        }
        if ((*words)[0] > 0xff || (*words)[2] > 0xffffff) return std::nullopt;
    }
    return words ? std::optional(imageBytes(*words)) : std::nullopt;
}

std::optional<Bytes> encodedSubject(const std::string& text) {
    Bytes bytes(1000, '\0');
    const int length = rvSubject_FromText(bytes.data(), 1000, text.c_str());
    if (length < 0 || text.find('\0') != std::string::npos) return std::nullopt;
    bytes.resize(static_cast<std::size_t>(length));
    return bytes;
}

Json subjectJson(const RvDatum& datum) {
    const std::string_view bytes = viewOf(datum);
    const auto subject =
        SubjectView::parse(static_cast<const std::uint8_t*>(datum.data()), bytes.size());
    const std::string text = subject ? subject->text() : std::string();
    if (isUtf8(text) && encodedSubject(text) == bytes) return text;
    return {{"base64", toBase64(bytes)}};
}

std::optional<Bytes> readSubject(const Json& json) {
    if (json.is_string()) return encodedSubject(json.get<std::string>());
    const Json* const raw = onlyMember(json, "base64");
    auto bytes = raw != nullptr ? bytesIn(*raw) : std::nullopt;
    const bool isWhole = bytes && bytes->size() >= kSubjectHeaderBytes &&
                         rvSubject_Length(bytes->data()) == bytes->size();
    return isWhole ? bytes : std::nullopt;
}

Json opaqueJson(const RvDatum& datum) {
    return toBase64(datum.data() == nullptr ? std::string_view() : viewOf(datum));
}

std::optional<Bytes> readSealed(const Json& json) {
    auto bytes = bytesIn(json);
    const bool isWhole = bytes && bytes->size() >= kSealedHeaderBytes &&
                         hasMagic(bytes->data(), kSealedMagic) &&
                         loadBig32(bytes->data()) == bytes->size();
    return isWhole ? bytes : std::nullopt;
}

// --- Types -----------------------------------------------------------------------------------

struct ValueType {
    rvmsg_Type type;
    std::optional<Bytes> (*read)(const Json&);
};

const std::map<std::string, ValueType, std::less<>>& valueTypes() {
    static const std::map<std::string, ValueType, std::less<>> kTypes = {
        {"string", {RVMSG_STRING, readString}},
        {"bool", {RVMSG_BOOLEAN, readBoolean}},
        {"i8", {RVMSG_INT, readInteger<std::int8_t>}},
        {"i16", {RVMSG_INT, readInteger<std::int16_t>}},
        {"i32", {RVMSG_INT, readInteger<std::int32_t>}},
        {"i64", {RVMSG_INT, readInteger<std::int64_t>}},
        {"u8", {RVMSG_UINT, readInteger<std::uint8_t>}},
        {"u16", {RVMSG_UINT, readInteger<std::uint16_t>}},
        {"u32", {RVMSG_UINT, readInteger<std::uint32_t>}},
        {"u64", {RVMSG_UINT, readInteger<std::uint64_t>}},
        {"f32", {RVMSG_REAL, readReal<float, std::uint32_t>}},
        {"f64", {RVMSG_REAL, readReal<double, std::uint64_t>}},
        {"ip", {RVMSG_IPDATA, readAddress}},
        {"port", {RVMSG_IPDATA, readPort}},
        {"datetime", {RVMSG_DATETIME, readDateTime}},
        {"subject", {RVMSG_SUBJECT, readSubject}},
        {"opaque", {RVMSG_OPAQUE, bytesIn}},
        {"encrypted", {RVMSG_ENCRYPTED, readSealed}}};
    return kTypes;
}

Json fieldsJson(const RvMsg& message) {
    Json fields = Json::array();
    const std::unique_ptr<RvMsgIterator> iterator(message.newIterator());
    while (const RvDatum* field = iterator ? iterator->next() : nullptr) {
        Json entry;
        entry["name"] = textJson(field->name() != nullptr ? field->name() : "");
        entry["type"] = typeName(*field);
        entry["value"] = valueJson(*field);
        fields.push_back(std::move(entry));
    }
    return fields;
}

// --- Reading ---------------------------------------------------------------------------------

// What is read, before it is appended or sent: `message` for messages, `bytes` for all else.
struct Read {
    rvmsg_Type type = RVMSG_BADDATA;
    Bytes bytes;
    std::shared_ptr<RvMsg> message;
};

std::string readFields(const Json& json, RvMsg& message, unsigned depth);

std::string inferredType(const Json& value) {
    if (value.is_boolean()) return "bool";
    if (value.is_string()) return "string";
    if (value.is_number_float()) return "f64";
    if (value.is_structured()) return "message";
    if (integerIn<std::int32_t>(value)) return "i32";
    if (integerIn<std::int64_t>(value)) return "i64";
    return value.is_number() ? "u64" : "";
}

const char* whyNoType(const Json& value) {
    return value.is_binary() ? "an integer beyond 64 bits has no type to infer; f64 takes it"
                             : "null has no type to infer";
}

std::string shown(const Json& value) {
    return excerpt(value.is_binary() ? digitsOf(value) : lineOf(value));
}

// A type without a name, "type 77", has no value.
std::optional<rvmsg_Type> unnamedType(std::string_view name) {
    constexpr std::string_view kPrefix = "type ";
    unsigned type = 0;
    if (!name.starts_with(kPrefix)) return std::nullopt;
    const auto [end, error] =
        std::from_chars(name.data() + kPrefix.size(), name.data() + name.size(), type);
    if (error != std::errc() || end != name.data() + name.size() || type > 255) return std::nullopt;
    // Named types and those that are never stored have other names.
    const RvDatum datum(static_cast<rvmsg_Type>(type), 0, "");
    if (typeName(datum) != name || type == RVMSG_BADDATA) return std::nullopt;
    return static_cast<rvmsg_Type>(type);
}

std::string readValue(const std::string& typeName, const Json& value, Read& read, unsigned depth) {
    if (typeName.empty()) return whyNoType(value);
    if (typeName == "message") {
        read.type = RVMSG_MSG;
        read.message = std::make_shared<RvMsg>(64UL);
        return readFields(value, *read.message, depth + 1);
    }
    const auto known = valueTypes().find(typeName);
    if (known != valueTypes().end()) {
        auto bytes = known->second.read(value);
        read.type = known->second.type;
        if (!bytes) return fmt::format("the value {} is no {}", shown(value), typeName);
        read.bytes = std::move(*bytes);
        return {};
    }
    const auto unnamed = unnamedType(typeName);
    if (!unnamed) return fmt::format("'{}' is no type", excerpt(typeName));
    read.type = *unnamed;
    return value.is_null() ? std::string() : fmt::format("a '{}' has no value", typeName);
}

std::string append(RvMsg& message, const std::string& name, const std::string& typeName,
                   const Json& value, unsigned depth) {
    Read read;
    const std::string type = typeName.empty() ? inferredType(value) : typeName;
    if (name.find('\0') != std::string::npos) return "a zero byte in the name of a field";
    if (auto problem = readValue(type, value, read, depth); !problem.empty()) {
        return fmt::format("field '{}': {}", excerpt(name), problem);
    }
    RvStatus status =
        read.message
            ? message.append(name.c_str(), RVMSG_MSG, read.message->size(), read.message->data())
            : message.append(name.c_str(), read.type, static_cast<rvmsg_Size>(read.bytes.size()),
                             read.bytes.c_str());
    return status == RvStatus(0) ? std::string()
                                 : fmt::format("field '{}': {}", excerpt(name), status.text());
}

std::string readField(const Json& entry, RvMsg& message, unsigned depth) {
    if (!entry.is_object() || !entry.contains("value")) {
        return R"(a field is {"name":...,"type":...,"value":...})";
    }
    const auto name = entry.contains("name") ? textOrBytes(entry["name"]) : Bytes();
    const Json type = entry.value("type", Json(""));
    if (!name) return "the name of a field is no text";
    if (!type.is_string()) return "the type of a field is no text";
    return append(message, *name, type.get<std::string>(), entry["value"], depth);
}

std::string readFields(const Json& json, RvMsg& message, unsigned depth) {
    if (depth > kMaxNesting) return "messages are nested too deeply";
    if (!json.is_structured()) return "the fields are neither an array nor an object";
    for (const auto& [name, value] : json.items()) {
        auto problem = json.is_array() ? readField(value, message, depth)
                                       : append(message, name, "", value, depth);
        if (!problem.empty()) return problem;
    }
    return {};
}

std::string readDatum(const Json& json, Outgoing& message) {
    const bool isMessage = json.contains("fields");
    const Json type = json.value("type", Json(isMessage ? "message" : ""));
    if (isMessage ? type != "message" : !json.contains("value")) {
        return R"(a message has "fields", anything else a "value")";
    }
    if (!type.is_string()) return "the type is no text";
    const Json& value = json[isMessage ? "fields" : "value"];
    std::string typeName = type.get<std::string>();
    if (typeName.empty()) typeName = inferredType(value);
    Read read;
    if (auto problem = readValue(typeName, value, read, 0); !problem.empty()) return problem;
    if (read.message) {
        message.datum = std::move(read.message);
        return {};
    }
    // The datum borrows the bytes, so they live as long.
    const auto bytes = std::make_shared<const Bytes>(std::move(read.bytes));
    const auto datum = std::make_shared<RvDatum>(read.type, static_cast<rvmsg_Size>(bytes->size()),
                                                 bytes->c_str());
    message.datum = std::shared_ptr<const RvDatum>(datum.get(), [bytes, datum](const RvDatum*) {});
    return {};
}

}  // namespace

// No text of JSON has bytes.
Json wideInteger(std::string_view digits) {
    return Json::binary({digits.begin(), digits.end()});
}

Json valueJson(const RvDatum& datum) {
    if (datum.data() == nullptr) return datum.type() == RVMSG_OPAQUE ? Json("") : Json(nullptr);
    switch (datum.type()) {
        case RVMSG_MSG:
            return fieldsJson(static_cast<const RvMsg&>(datum));
        case RVMSG_SUBJECT:
            return subjectJson(datum);
        case RVMSG_DATETIME:
            return dateTimeJson(datum);
        case RVMSG_STRING:
            return stringJson(datum);
        case RVMSG_BOOLEAN:
            return booleanJson(datum);
        case RVMSG_IPDATA:
            return addressJson(datum);
        case RVMSG_INT:
            return integerJson<std::int8_t, std::int16_t, std::int32_t, std::int64_t>(datum);
        case RVMSG_UINT:
            return integerJson<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t>(datum);
        case RVMSG_REAL:
            return datum.size() == sizeof(float) ? realJson<float, std::uint32_t>(datum)
                                                 : realJson<double, std::uint64_t>(datum);
        case RVMSG_OPAQUE:
        case RVMSG_ENCRYPTED:
            return opaqueJson(datum);
        default:
            return nullptr;
    }
}

Json textJson(std::string_view text) {
    if (isUtf8(text)) return std::string(text);
    return {{"base64", toBase64(text)}};
}

Json messageJson(const char* subject, const char* reply, const RvDatum& datum) {
    Json object;
    object["subject"] = textJson(subject);
    object["reply"] = reply != nullptr ? textJson(reply) : Json(nullptr);
    object["type"] = typeName(datum);
    object[datum.type() == RVMSG_MSG ? "fields" : "value"] = valueJson(datum);
    return object;
}

std::string readMessage(const Json& json, Outgoing& message) {
    if (!json.is_object()) return "a message is an object";
    const auto subject = json.contains("subject") ? textOrBytes(json["subject"]) : std::nullopt;
    if (!subject || !encodedSubject(*subject)) return "the subject is no subject";
    const Json replyTo = json.value("reply", Json(nullptr));
    const auto reply = replyTo.is_null() ? Bytes() : textOrBytes(replyTo);
    if (!reply || (!reply->empty() && !encodedSubject(*reply))) {
        return "the reply subject is no subject";
    }
    message.subject = *subject;
    message.reply = *reply;
    return readDatum(json, message);
}

bool isSubject(const std::string& text) {
    return encodedSubject(text).has_value();
}

std::string lineOf(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kvx::bus
