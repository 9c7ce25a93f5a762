// JSON of bus data. Nested messages are written recursively; received messages were checked for the
// format's limit of nesting.

#include "tools/bus/DatumJson.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>

#include "platform/Text.h"

namespace kvx::bus {

namespace {

template <class Number>
Number numberAt(const void* data) {
    Number number;
    std::memcpy(&number, data, sizeof number);
    return number;
}

template <class One, class Two, class Four, class Eight>
Json integer(const RvDatum& datum) {
    switch (datum.size()) {
        case 1:
            return numberAt<One>(datum.data());
        case 2:
            return numberAt<Two>(datum.data());
        case 4:
            return numberAt<Four>(datum.data());
        case 8:
            return numberAt<Eight>(datum.data());
        default:
            return nullptr;
    }
}

Json real(const RvDatum& datum) {
    if (datum.size() == sizeof(float)) return numberAt<float>(datum.data());
    if (datum.size() == sizeof(double)) return numberAt<double>(datum.data());
    return nullptr;
}

std::string textOf(const RvDatum& datum) {
    const auto* text = static_cast<const char*>(datum.data());
    return {text, strnlen(text, datum.size())};
}

std::string hexOf(const RvDatum& datum) {
    std::string hex;
    const auto* bytes = static_cast<const unsigned char*>(datum.data());
    for (rvmsg_Size i = 0; i < datum.size(); ++i) {
        fmt::format_to(std::back_inserter(hex), "{:02x}", bytes[i]);
    }
    return hex;
}

Json address(const RvDatum& datum) {
    const auto* bytes = static_cast<const unsigned char*>(datum.data());
    if (datum.size() == 2) return bytes[0] * 256 + bytes[1];
    if (datum.size() == 4) {
        return fmt::format("{}.{}.{}.{}", bytes[0], bytes[1], bytes[2], bytes[3]);
    }
    return nullptr;
}

Json dateTime(const RvDatum& datum) {
    if (datum.size() < 3 * sizeof(std::uint32_t)) return nullptr;
    std::uint32_t words[3];
    std::memcpy(words, datum.data(), sizeof words);
    // The high byte is a sign: 255 for a time before 1970.
    const auto seconds =
        static_cast<std::int64_t>(words[1]) - (words[0] == 255 ? (std::int64_t{1} << 32) : 0);
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:06}Z",
                       fmt::gmtime(static_cast<std::time_t>(seconds)), words[2]);
}

Json subjectText(const RvDatum& datum) {
    char text[1001];
    if (datum.size() < 3 || rvSubject_ToText(text, sizeof text, datum.data()) == nullptr) {
        return nullptr;
    }
    return text;
}

Json fieldsOf(const RvMsg& message);

Json fieldsOf(const RvMsg& message) {
    Json fields = Json::array();
    const std::unique_ptr<RvMsgIterator> iterator(message.newIterator());
    if (!iterator) return fields;
    while (const RvDatum* field = iterator->next()) {
        Json entry;
        entry["name"] = field->name() != nullptr ? field->name() : "";
        entry["type"] = typeName(*field);
        entry["value"] = valueOf(*field);
        fields.push_back(std::move(entry));
    }
    return fields;
}

std::string dump(const Json& json) {
    return printableJson(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

}  // namespace

Json valueOf(const RvDatum& datum) {
    if (datum.data() == nullptr) return nullptr;
    switch (datum.type()) {
        case RVMSG_MSG:
            return fieldsOf(static_cast<const RvMsg&>(datum));
        case RVMSG_SUBJECT:
            return subjectText(datum);
        case RVMSG_DATETIME:
            return dateTime(datum);
        case RVMSG_STRING:
            return textOf(datum);
        case RVMSG_BOOLEAN:
            return *static_cast<const unsigned char*>(datum.data()) != 0;
        case RVMSG_IPDATA:
            return address(datum);
        case RVMSG_INT:
            return integer<std::int8_t, std::int16_t, std::int32_t, std::int64_t>(datum);
        case RVMSG_UINT:
            return integer<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t>(datum);
        case RVMSG_REAL:
            return real(datum);
        default:
            return hexOf(datum);
    }
}

std::string typeName(const RvDatum& datum) {
    switch (datum.type()) {
        case RVMSG_MSG:
            return "message";
        case RVMSG_SUBJECT:
            return "subject";
        case RVMSG_DATETIME:
            return "datetime";
        case RVMSG_OPAQUE:
            return "opaque";
        case RVMSG_STRING:
            return "string";
        case RVMSG_BOOLEAN:
            return "bool";
        case RVMSG_IPDATA:
            return datum.size() == 2 ? "port" : "ip";
        case RVMSG_INT:
            return fmt::format("i{}", datum.size() * 8);
        case RVMSG_UINT:
            return fmt::format("u{}", datum.size() * 8);
        case RVMSG_REAL:
            return fmt::format("f{}", datum.size() * 8);
        case RVMSG_NONE:
            return "none";
        case RVMSG_ENCRYPTED:
            return "encrypted";
        default:
            return fmt::format("type {}", datum.type());
    }
}

std::string printableJson(const std::string& json) {
    return escaped(json, [](std::string& shown, std::string_view piece) {
        fmt::format_to(std::back_inserter(shown), "\\u{:04x}",
                       static_cast<unsigned char>(piece.back()));
    });
}

void addMessage(Json& object, const char* subject, const char* reply, const RvDatum& datum) {
    object["subject"] = subject;
    object["reply"] = reply != nullptr ? Json(reply) : Json(nullptr);
    object["type"] = typeName(datum);
    object[datum.type() == RVMSG_MSG ? "fields" : "value"] = valueOf(datum);
}

std::string messageAsJson(const char* subject, const char* reply, const RvDatum& datum) {
    Json line;
    addMessage(line, subject, reply, datum);
    return dump(line);
}

std::string datumText(const RvDatum& datum) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const out = open_memstream(&text, &size);
    if (out == nullptr) return {};
    datum.print(out);
    std::fclose(out);
    const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
    return printable({owned.get(), size});
}

std::string jsonString(const std::string& text) {
    return dump(Json(text));
}

}  // namespace kvx::bus
