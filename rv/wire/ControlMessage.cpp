// Building and reading control messages.
//
// Each builder appends its fields in wire order; `Builder` keeps the first failure. Readers look
// fields up by name in received bytes. Type and subject, by which every message is routed, come
// first in the messages of this system and are then read as one piece.

#include "rv/wire/ControlMessage.h"

#include <cstring>
#include <utility>

#include "rv/error/rvCodes.h"
#include "rv/message/FieldCheck.h"

namespace kvx::wire {
namespace {

namespace code = message_code;

constexpr std::uint32_t kReplyCapacity = 128;  // bytes; fits both forms of the daemon's answer

// Fixed overheads of a data message, in bytes.
constexpr std::uint64_t kTypeRoom = 24;
constexpr std::uint64_t kSubjectRoom = 12;
constexpr std::uint64_t kReturnRoom = 16;
constexpr std::uint64_t kPayloadRoom = 13;
constexpr std::uint64_t kFlavourRoom = 16;

class Builder {
  public:
    explicit Builder(std::uint32_t capacity) {
        built_.message = OwnedMessage::allocate(capacity);
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
    Builder& type(MessageType type) {
        const char text[] = {static_cast<char>(type), '\0'};
        return field(wire::field::kMessageType, RVMSG_STRING, sizeof text, text);
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
    return Builder(kReplyCapacity).type(MessageType::Reply).message(field::kData, data).finish();
}

// Computes the size of a payload given with size 0. False for a type without a size of its own.
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
            return hasMagic(bytes, kSealedMagic);
        default:
            return false;
    }
}

MessageType messageTypeOf(const WireField& field) {
    const auto text = field.text();
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

// The bytes before and after the type letter at the start of every data, listen and cancel message
// of this system. Comparing them as one piece routes nearly every message.
constexpr std::uint8_t kLeading[] = {6, 'm', 't', 'y', 'p', 'e', 0, 8, 2};
constexpr std::uint8_t kFollowing[] = {0, 4, 's', 'u', 'b', 0, 2, 0x79};
constexpr std::size_t kLetterAt = kHeaderBytes + sizeof kLeading;
constexpr std::size_t kSubjectAt = kLetterAt + 1 + sizeof kFollowing;
// The same of a flavour id.
constexpr std::uint8_t kFlavourHead[] = {4, 'f', 'i', 'd', 0, RVMSG_INT, sizeof(std::int32_t)};

// Returns where the encoded subject goes. The length is left to the caller.
std::uint8_t* writeUsualHead(std::uint8_t* message, MessageType type) {
    storeBig32(message + 4, kMessageMagic);
    std::memcpy(message + kHeaderBytes, kLeading, sizeof kLeading);
    message[kLetterAt] = static_cast<std::uint8_t>(type);
    std::memcpy(message + kLetterAt + 1, kFollowing, sizeof kFollowing);
    return message + kSubjectAt;
}

bool readUsualRouting(Bytes message, Routing& routing) {
    if (message.size() < kSubjectAt + kSubjectHeaderBytes) return false;
    const std::uint8_t* at = message.data();
    if (std::memcmp(at + kHeaderBytes, kLeading, sizeof kLeading) != 0) return false;
    if (std::memcmp(at + kLetterAt + 1, kFollowing, sizeof kFollowing) != 0) return false;
    const std::uint8_t letter = at[kLetterAt];
    if (letter != 'D' && letter != 'L' && letter != 'C') return false;
    const std::size_t length = loadBig16(at + kSubjectAt);
    if (length < kSubjectHeaderBytes || length > message.size() - kSubjectAt) return false;
    routing = {static_cast<MessageType>(letter), message.subspan(kSubjectAt, length)};
    return true;
}

void readErrorReply(const WireField& error, Reply& reply) {
    const bool readable = error.type == RVMSG_INT && error.size == sizeof(std::int32_t);
    reply.code =
        readable ? static_cast<std::int32_t>(loadBig32(error.data)) : session_code::kInitFailed;
}

// The bytes of an address field, unchanged: they are in network byte order already.
template <class Number>
bool readAddress(Bytes data, const char* name, Number& value) {
    const auto field = findField(data, name);
    if (!field || field->type != RVMSG_IPDATA || field->size != sizeof value) return false;
    std::memcpy(&value, field->data, sizeof value);
    return true;
}

}  // namespace

OwnedMessage OwnedMessage::allocate(std::size_t capacity) {
    OwnedMessage message;
    message.bytes.reset(static_cast<std::uint8_t*>(std::malloc(capacity)));
    if (message.bytes) message.capacity = static_cast<std::uint32_t>(capacity);
    return message;
}

OwnedMessage OwnedMessage::copyOf(Bytes message) {
    OwnedMessage copy = allocate(message.size());
    if (copy.bytes) std::memcpy(copy.bytes.get(), message.data(), message.size());
    return copy;
}

Built buildInit(const InitFields& fields) {
    Builder builder(kControlCapacity);
    builder.type(MessageType::Init)
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
        .type(MessageType::Listen)
        .subject(subject)
        .text(field::kReturn, returnSubject)
        .flavourId(flavourId)
        .finish();
}

Built buildCancel(Bytes subject, std::int32_t flavourId) {
    return Builder(kControlCapacity)
        .type(MessageType::Cancel)
        .subject(subject)
        .flavourId(flavourId)
        .finish();
}

std::uint64_t dataCapacity(std::size_t subjectLength, std::size_t replyLength, bool hasPayload,
                           std::uint64_t payloadSize) {
    std::uint64_t capacity = kTypeRoom + subjectLength + kSubjectRoom + kFlavourRoom;
    if (replyLength > 0) capacity += replyLength + kReturnRoom;
    if (hasPayload) capacity += payloadSize + kPayloadRoom;
    return capacity;
}

DataMessage::DataMessage(Bytes subject, const char* reply, std::int32_t flavourId,
                         const Payload& payload)
    : subject_(subject), reply_(reply), flavourId_(flavourId), payload_(payload) {
    const bool hasPayload = payload.type != RVMSG_NONE;
    std::uint64_t size = payload.size;
    if (subject.size() < kSubjectHeaderBytes) {
        code_ = code::kInvalidData;
        return;
    }
    if (hasPayload && (payload.data == nullptr || (size == 0 && !measure(payload, size)))) {
        code_ = code::kInvalidArgument;
        return;
    }
    replyLength_ = reply != nullptr ? std::strlen(reply) : 0;
    const std::uint64_t capacity = dataCapacity(subject.size(), replyLength_, hasPayload, size);
    if (capacity > kMaxMessageBytes) {
        code_ = code::kInvalidData;
        return;
    }
    payload_.size = static_cast<std::uint32_t>(size);
    capacity_ = static_cast<std::uint32_t>(capacity);
}

int DataMessage::writeTo(std::uint8_t* buffer) const {
    std::uint8_t* const subject = writeUsualHead(buffer, MessageType::Data);
    std::memcpy(subject, subject_.data(), subject_.size());
    std::uint8_t* end = subject + subject_.size();
    if (replyLength_ > 0) {
        storeBig32(buffer, static_cast<std::uint32_t>(end - buffer));
        const int result = rvmsg_Append(buffer, capacity_, field::kReturn, RVMSG_STRING,
                                        static_cast<std::uint32_t>(replyLength_) + 1, reply_);
        if (result != code::kOk) return result;
        end = buffer + loadBig32(buffer);
    }
    if (flavourId_ != 0) {
        std::memcpy(end, kFlavourHead, sizeof kFlavourHead);
        storeBig32(end + sizeof kFlavourHead, static_cast<std::uint32_t>(flavourId_));
        end += sizeof kFlavourHead + sizeof flavourId_;
    }
    storeBig32(buffer, static_cast<std::uint32_t>(end - buffer));
    if (payload_.type == RVMSG_NONE) return code::kOk;
    return rvmsg_Append(buffer, capacity_, field::kData, payload_.type, payload_.size,
                        payload_.data);
}

Built buildData(Bytes subject, const char* reply, std::int32_t flavourId, const Payload& payload) {
    const DataMessage data(subject, reply, flavourId, payload);
    if (data.code() != code::kOk) return {data.code(), {}};
    Built built{code::kNoRoom, OwnedMessage::allocate(data.capacity())};
    if (built.message.bytes) built.code = data.writeTo(built.message.bytes.get());
    if (built.code != code::kOk) built.message = {};
    return built;
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

Routing readRouting(Bytes message) {
    Routing routing;
    if (readUsualRouting(message, routing)) return routing;
    bool typeSeen = false;
    bool subjectSeen = false;
    FieldCursor cursor(message);
    WireField found;
    while (!(typeSeen && subjectSeen) && cursor.next(found) == FieldCursor::Step::kField) {
        if (!typeSeen && found.isNamed(field::kMessageType)) {
            typeSeen = true;
            routing.type = messageTypeOf(found);
        } else if (!subjectSeen && found.isNamed(field::kSubject)) {
            subjectSeen = true;
            if (found.type == RVMSG_SUBJECT) routing.subject = found.bytes();
        }
    }
    return routing;
}

namespace {

// Takes the fields of a message in their order.
class EnvelopeReader {
  public:
    explicit EnvelopeReader(Envelope& envelope)
        : envelope_(envelope), hasSubject_(!envelope.subject.empty()) {}

    void operator()(const WireField& found) {
        switch (found.nameBytes) {
            case std::string_view(field::kSubject).size() + 1:
                if (!hasSubject_ && found.isNamed(field::kSubject)) takeSubject(found);
                break;
            case std::string_view(field::kData).size() + 1:
                if (found.isNamed(field::kData)) keepFirst(envelope_.data, found);
                break;
            case std::string_view(field::kReturn).size() + 1:
                if (found.isNamed(field::kReturn)) keepFirst(envelope_.reply, found);
                break;
            default:
                break;
        }
    }

  private:
    static void keepFirst(WireField& kept, const WireField& found) {
        if (kept.type == RVMSG_BADDATA) kept = found;
    }
    void takeSubject(const WireField& found) {
        hasSubject_ = true;
        if (found.type == RVMSG_SUBJECT) envelope_.subject = found.bytes();
    }

    Envelope& envelope_;
    bool hasSubject_;
};

}  // namespace

int openEnvelope(Bytes message, Envelope& envelope) {
    envelope = {message, {}, {}, {}};
    // What nearly every message begins with is known to be valid.
    Routing usual;
    std::size_t checked = kHeaderBytes;
    if (readUsualRouting(message, usual)) {
        envelope.subject = usual.subject;
        checked = kSubjectAt + usual.subject.size();
    }
    return checkMessage(message, kMaxLinkNesting, EnvelopeReader(envelope), checked);
}

Envelope readEnvelope(Bytes message) {
    Envelope envelope{message, {}, {}, {}};
    EnvelopeReader reader(envelope);
    FieldCursor cursor(message);
    for (WireField found; cursor.next(found) == FieldCursor::Step::kField;) reader(found);
    return envelope;
}

const char* Envelope::replyText() const {
    if (reply.type != RVMSG_STRING || reply.size < 2 || reply.data[0] == 0) return nullptr;
    if (std::memchr(reply.data, 0, reply.size) == nullptr) return nullptr;
    return reinterpret_cast<const char*>(reply.data);
}

Init readInit(Bytes message) {
    Init init;
    const auto text = [message](const char* name) -> std::optional<std::string_view> {
        const auto found = findField(message, name);
        return found ? found->text() : std::nullopt;
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
    if (const auto error = findField(data->bytes(), field::kError)) {
        readErrorReply(*error, reply);
        if (reply.code != 0) return reply;
    }
    if (!readAddress(data->bytes(), field::kIpAddress, reply.ipAddress)) {
        reply.code = session_code::kNetworkNotFound;
    } else if (!readAddress(data->bytes(), field::kIpPort, reply.ipPort)) {
        reply.code = session_code::kServiceNotFound;
    } else {
        reply.code = 0;
    }
    return reply;
}

}  // namespace kvx::wire
