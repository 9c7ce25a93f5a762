// Building control messages: each function lists its fields in the order in which they stand in the
// message. `Builder` remembers the first failure, so that a list of fields reads as one.

#include <cstring>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/message/WireReader.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/ControlMessage.h"

namespace kvx::wire {
namespace {

namespace code = message_code;

constexpr std::uint32_t kSealedMagic = 0x9955EEBB;

constexpr std::uint32_t kReplyCapacity = 128;  // bytes; both forms of the daemon's answer fit

// Room that a data message takes besides its variable parts, in bytes.
constexpr std::uint64_t kTypeRoom = 22;
constexpr std::uint64_t kSubjectRoom = 12;
constexpr std::uint64_t kReturnRoom = 16;
constexpr std::uint64_t kPayloadRoom = 13;
constexpr std::uint64_t kFlavourRoom = 16;

constexpr const char* kInitText = "I";
constexpr const char* kReplyText = "R";
constexpr const char* kListenText = "L";
constexpr const char* kCancelText = "C";
constexpr const char* kDataText = "D";

class Builder {
  public:
    explicit Builder(std::uint32_t capacity) {
        built_.message.bytes.reset(static_cast<std::uint8_t*>(std::malloc(capacity)));
        built_.message.capacity = capacity;
        built_.code =
            built_.message.bytes ? rvmsg_Init(built_.message.bytes.get(), capacity) : code::kNoRoom;
    }

    Builder& field(const char* name, std::uint32_t type, std::uint32_t size, const void* data) {
        if (built_.code == code::kOk) {
            built_.code = rvmsg_Append(built_.message.bytes.get(), built_.message.capacity, name,
                                       type, size, data);
        }
        return *this;
    }
    Builder& text(const char* name, const char* value) {
        return value != nullptr ? field(name, RVMSG_STRING, 0, value) : *this;
    }
    Builder& number(const char* name, std::int32_t value) {
        return field(name, RVMSG_INT, sizeof value, &value);
    }
    Builder& subject(Bytes encoded) {
        return field(wire::field::kSubject, RVMSG_SUBJECT,
                     static_cast<std::uint32_t>(encoded.size()), encoded.data());
    }
    Builder& flavourId(std::int32_t id) {
        return id != 0 ? number(wire::field::kFlavourId, id) : *this;
    }
    Builder& message(const char* name, const Built& nested) {
        if (built_.code == code::kOk) built_.code = nested.code;
        return field(name, RVMSG_MSG, nested.message.size(), nested.message.bytes.get());
    }

    Built finish() {
        if (built_.code != code::kOk) built_.message = {};
        return std::move(built_);
    }

  private:
    Built built_;
};

Built reply(const Built& data) {
    return Builder(kReplyCapacity)
        .text(field::kMessageType, kReplyText)
        .message(field::kData, data)
        .finish();
}

// The size of a payload whose caller left it open. False for what has no size of its own.
bool measure(const Payload& payload, std::uint64_t& size) {
    const auto* bytes = static_cast<const std::uint8_t*>(payload.data);
    switch (payload.type) {
        case RVMSG_MSG: {
            std::uint32_t length = 0;
            const int result = rvmsg_Length(payload.data, &length);
            size = length;
            return result == code::kOk;
        }
        case RVMSG_STRING:
            size = std::strlen(static_cast<const char*>(payload.data)) + 1;
            return true;
        case RVMSG_ENCRYPTED:
            size = loadBig32(bytes);
            return loadBig32(bytes + 4) == kSealedMagic;
        default:
            return false;
    }
}

}  // namespace

Built buildInit(const InitFields& fields) {
    Builder builder(kControlCapacity);
    builder.text(field::kMessageType, kInitText)
        .text(field::kUserId, fields.userId)
        .text(field::kSession, fields.session)
        .text(field::kService, fields.service)
        .text(field::kNetwork, fields.network)
        .text(field::kControl, fields.control)
        .number(field::kVersionMajor, kClientVersion[0])
        .number(field::kVersionMinor, kClientVersion[1])
        .number(field::kVersionUpdate, kClientVersion[2])
        .number(field::kFlavourId, fields.flavour.id)
        .text(field::kFlavourName, fields.flavour.name)
        .text(field::kFlavourTicket, fields.flavour.ticket)
        .number(field::kFlavourKey, fields.flavour.key)
        .number(field::kFlavourFlags, fields.flavour.flags);
    return builder.finish();
}

Built buildListen(Bytes subject, const char* returnSubject, std::int32_t flavourId) {
    return Builder(kControlCapacity)
        .text(field::kMessageType, kListenText)
        .subject(subject)
        .text(field::kReturn, returnSubject)
        .flavourId(flavourId)
        .finish();
}

Built buildCancel(Bytes subject, std::int32_t flavourId) {
    return Builder(kControlCapacity)
        .text(field::kMessageType, kCancelText)
        .subject(subject)
        .flavourId(flavourId)
        .finish();
}

std::uint64_t dataCapacity(std::size_t subjectLength, std::size_t replyLength, bool hasPayload,
                           std::uint64_t payloadSize) {
    std::uint64_t capacity =
        std::strlen(kDataText) + 1 + kTypeRoom + subjectLength + kSubjectRoom + kFlavourRoom;
    if (replyLength > 0) capacity += replyLength + kReturnRoom;
    if (hasPayload) capacity += payloadSize + kPayloadRoom;
    return capacity;
}

Built buildData(Bytes subject, const char* replySubject, std::int32_t flavourId,
                const Payload& payload) {
    const bool hasPayload = payload.type != RVMSG_NONE;
    std::uint64_t size = payload.size;
    if (hasPayload) {
        if (payload.data == nullptr) return {code::kInvalidArgument, {}};
        if (size == 0 && !measure(payload, size)) return {code::kInvalidArgument, {}};
    }
    const std::size_t replyLength = replySubject != nullptr ? std::strlen(replySubject) : 0;
    const std::uint64_t capacity = dataCapacity(subject.size(), replyLength, hasPayload, size);
    if (capacity > kMaxMessageLength) return {code::kInvalidData, {}};
    Builder builder(static_cast<std::uint32_t>(capacity));
    builder.text(field::kMessageType, kDataText).subject(subject);
    if (replyLength > 0) builder.text(field::kReturn, replySubject);
    builder.flavourId(flavourId);
    if (hasPayload) {
        const auto fieldSize = static_cast<std::uint32_t>(size);
        builder.field(field::kData, payload.type, fieldSize, payload.data);
    }
    return builder.finish();
}

Built buildReply(std::uint32_t ipAddress, std::uint16_t ipPort) {
    const Built data = Builder(kReplyCapacity)
                           .field(field::kIpAddress, RVMSG_IPDATA, sizeof ipAddress, &ipAddress)
                           .field(field::kIpPort, RVMSG_IPDATA, sizeof ipPort, &ipPort)
                           .finish();
    return reply(data);
}

Built buildErrorReply(std::int32_t error) {
    return reply(Builder(kReplyCapacity).number(field::kError, error).finish());
}

}  // namespace kvx::wire
