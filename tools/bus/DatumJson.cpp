#include "tools/bus/DatumJson.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>

#include "platform/Text.h"
#include "tools/bus/MessageJson.h"

namespace kvx::bus {

namespace {

std::string dump(const Json& json) {
    return printableJson(lineOf(json));
}

}  // namespace

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

std::string messageAsJson(const char* subject, const char* reply, const RvDatum& datum) {
    return dump(messageJson(subject, reply, datum));
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
