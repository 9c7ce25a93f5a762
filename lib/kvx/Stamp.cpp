#include "kvx/Stamp.h"

#include <array>
#include <string_view>

#include "mom/transport/CVekTransport.h"
#include "rv/message/WireReader.h"

namespace kvx {

namespace {

constexpr const char* kStampField = "s";
constexpr const char* kSourceField = "k";
constexpr std::size_t kStampSize = 16;                       // bytes
constexpr std::size_t kMostSource = std::size_t{64} << 10U;  // bytes

bool appendBytes(RvMsg& message, const char* name, const void* bytes, std::size_t size) {
    return message.append(name, RVMSG_OPAQUE, static_cast<rvmsg_Size>(size), bytes) == RvStatus(0);
}

bool appendStampAs(RvMsg& message, const char* name, const Stamp& stamp) {
    std::array<unsigned char, kStampSize> bytes{};
    storeBig64(bytes.data(), stamp.epoch);
    storeBig64(bytes.data() + 8, stamp.number);
    return appendBytes(message, name, bytes.data(), bytes.size());
}

// A view of the bytes of an opaque field; nothing when there is none of that name and type.
std::optional<std::string_view> opaque(const RvDatum& data, const char* name) {
    if (data.type() != RVMSG_MSG) return std::nullopt;
    rvmsg_Type type = 0;
    rvmsg_Size size = 0;
    rvmsg_Data bytes = nullptr;
    if (rvmsg_GetRaw(data.data(), name, &type, &size, &bytes) != 0 || type != RVMSG_OPAQUE) {
        return std::nullopt;
    }
    return std::string_view(static_cast<const char*>(bytes), size);
}

std::optional<Stamp> stampIn(const RvDatum& data, const char* name) {
    const auto bytes = opaque(data, name);
    if (!bytes || bytes->size() != kStampSize) return std::nullopt;
    const Stamp stamp{loadBig64(bytes->data()), loadBig64(bytes->data() + 8)};
    if (stamp.epoch == 0) return std::nullopt;
    return stamp;
}

}  // namespace

bool appendStamp(RvMsg& message, const Stamp& stamp) {
    return appendStampAs(message, kStampField, stamp);
}

bool appendSource(RvMsg& message, const RowSource& source) {
    std::string texts = source.table + '\0';
    for (const std::string& name : source.key) texts += name + '\0';
    return appendBytes(message, kSourceField, texts.data(), texts.size());
}

std::optional<Stamp> readStamp(const RvDatum& data) {
    return stampIn(data, kStampField);
}

std::optional<RowSource> readSource(const RvDatum& data) {
    const auto bytes = opaque(data, kSourceField);
    if (!bytes || bytes->size() > kMostSource || !bytes->ends_with('\0')) return std::nullopt;
    std::vector<std::string> texts;
    for (auto rest = *bytes; !rest.empty();) {
        const std::size_t end = rest.find('\0');
        texts.emplace_back(rest.substr(0, end));
        rest.remove_prefix(end + 1);
    }
    RowSource source{std::move(texts.front()), {}};
    source.key.assign(texts.begin() + 1, texts.end());
    return source;
}

RvMsg historyQuestion(const Stamp& stamp) {
    RvMsg message(0UL);
    appendStampAs(message, stamp_field::kSince, stamp);
    message.append("QryInfoVersion", static_cast<unsigned int>(VEK_TRANS_V1));
    return message;
}

std::optional<Stamp> readHistoryQuestion(const RvDatum& question) {
    return stampIn(question, stamp_field::kSince);
}

}  // namespace kvx
