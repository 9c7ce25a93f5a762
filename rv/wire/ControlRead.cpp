#include <cstring>

#include "rv/message/WireReader.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"
#include "rv/wire/Fields.h"

namespace kvx::wire {
namespace {

constexpr std::size_t kSubjectHeader = 3;

constexpr int kReplyUnreadable = 1;

MessageType messageTypeOf(const Field& field) {
    const auto text = textOf(field);
    if (!text || text->size() != 1) return MessageType::Unknown;
    switch (text->front()) {
        case 'I':
        case 'R':
        case 'L':
        case 'C':
        case 'D':
            return static_cast<MessageType>(text->front());
        default:
            return MessageType::Unknown;
    }
}

Bytes subjectOf(const Field& field) {
    const bool whole = field.type == RVMSG_SUBJECT && field.data.size() >= kSubjectHeader;
    return whole ? field.data : Bytes{};
}

// What every data, listen and cancel message of this system begins with, up to the letter and
// behind it: reading these bytes as one piece is what routing costs for nearly every message.
constexpr std::uint8_t kLeading[] = {6, 'm', 't', 'y', 'p', 'e', 0, 8, 2};
constexpr std::uint8_t kFollowing[] = {0, 4, 's', 'u', 'b', 0, 2, 0x79};
constexpr std::size_t kLetterAt = kFrameHeaderSize + sizeof kLeading;
constexpr std::size_t kSubjectAt = kLetterAt + 1 + sizeof kFollowing;

bool readUsualRouting(Bytes message, Routing& routing) {
    if (message.size() < kSubjectAt + kSubjectHeader) return false;
    const std::uint8_t* at = message.data();
    if (std::memcmp(at + kFrameHeaderSize, kLeading, sizeof kLeading) != 0) return false;
    if (std::memcmp(at + kLetterAt + 1, kFollowing, sizeof kFollowing) != 0) return false;
    const std::uint8_t letter = at[kLetterAt];
    if (letter != 'D' && letter != 'L' && letter != 'C') return false;
    const std::size_t length = loadBig16(at + kSubjectAt);
    if (length < kSubjectHeader || length > message.size() - kSubjectAt) return false;
    routing = {static_cast<MessageType>(letter), message.subspan(kSubjectAt, length)};
    return true;
}

void readErrorReply(const Field& error, Reply& reply) {
    const bool readable = error.type == RVMSG_INT && error.data.size() == sizeof(std::int32_t);
    reply.code =
        readable ? static_cast<std::int32_t>(loadBig32(error.data.data())) : kReplyUnreadable;
}

// The bytes of an address field as they are: they are in network byte order already.
template <class Number>
bool readAddress(Bytes data, const char* name, Number& value) {
    const auto field = findField(data, name);
    if (!field || field->type != RVMSG_IPDATA || field->data.size() != sizeof value) return false;
    std::memcpy(&value, field->data.data(), sizeof value);
    return true;
}

}  // namespace

Routing readRouting(Bytes message) {
    Routing routing;
    if (readUsualRouting(message, routing)) return routing;
    bool typeSeen = false;
    bool subjectSeen = false;
    FieldCursor cursor(message);
    for (Field found; !(typeSeen && subjectSeen) && cursor.next(found);) {
        if (!typeSeen && found.name == field::kMessageType) {
            typeSeen = true;
            routing.type = messageTypeOf(found);
        } else if (!subjectSeen && found.name == field::kSubject) {
            subjectSeen = true;
            routing.subject = subjectOf(found);
        }
    }
    return routing;
}

Init readInit(Bytes message) {
    Init init;
    const auto text = [message](const char* name) -> std::optional<std::string_view> {
        const auto found = findField(message, name);
        return found ? textOf(*found) : std::nullopt;
    };
    init.userId = text(field::kUserId);
    init.session = text(field::kSession);
    init.service = text(field::kService);
    init.network = text(field::kNetwork);
    init.control = text(field::kControl);
    return init;
}

Reply readReply(Bytes message) {
    Reply reply;
    if (readRouting(message).type != MessageType::Reply) return reply;
    const auto data = findField(message, field::kData);
    if (!data || data->type != RVMSG_MSG) return reply;
    if (const auto error = findField(data->data, field::kError)) {
        readErrorReply(*error, reply);
        if (reply.code != 0) return reply;
    }
    if (!readAddress(data->data, field::kIpAddress, reply.ipAddress)) {
        reply.code = kNetworkNotFound;
    } else if (!readAddress(data->data, field::kIpPort, reply.ipPort)) {
        reply.code = kServiceNotFound;
    } else {
        reply.code = 0;
    }
    return reply;
}

}  // namespace kvx::wire
