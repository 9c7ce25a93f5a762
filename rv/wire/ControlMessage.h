#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/Memory.h"
#include "rv/message/rvmsg.h"
#include "rv/wire/Limits.h"

/// The messages that a session and its daemon exchange: their fields, the order of the fields, and
/// how they are built and read. Client and daemon use the same functions.
namespace kvx::wire {

/// Field names of the control and data messages.
namespace field {
inline constexpr const char* kMessageType = "mtype";
inline constexpr const char* kSubject = "sub";
inline constexpr const char* kReturn = "return";
inline constexpr const char* kData = "data";
inline constexpr const char* kUserId = "userid";
inline constexpr const char* kSession = "session";
inline constexpr const char* kService = "service";
inline constexpr const char* kNetwork = "network";
inline constexpr const char* kControl = "control";
inline constexpr const char* kVersionMajor = "vmaj";
inline constexpr const char* kVersionMinor = "vmin";
inline constexpr const char* kVersionUpdate = "vupd";
inline constexpr const char* kFlavourId = "fid";
inline constexpr const char* kFlavourName = "fname";
inline constexpr const char* kFlavourTicket = "ftkt";
inline constexpr const char* kFlavourKey = "fkey";
inline constexpr const char* kFlavourFlags = "fflags";
inline constexpr const char* kIpAddress = "ipaddr";
inline constexpr const char* kIpPort = "ipport";
inline constexpr const char* kError = "error";
}  // namespace field

/// The value of "mtype". `Unknown` is any other text, another type, or a missing field.
enum class MessageType : char {
    Unknown = 0,
    Init = 'I',
    Reply = 'R',
    Listen = 'L',
    Cancel = 'C',
    Data = 'D'
};

/// A message in memory of its own (malloc, released with free).
struct OwnedMessage {
    /// Allocates `capacity` uninitialised bytes; empty without memory.
    [[nodiscard]] static OwnedMessage allocate(std::size_t capacity);
    [[nodiscard]] static OwnedMessage copyOf(Bytes message);

    std::unique_ptr<std::uint8_t[], FreeDeleter> bytes;
    std::uint32_t capacity = 0;  ///< bytes allocated

    /// The message's length word; 0 when empty.
    [[nodiscard]] std::uint32_t size() const { return bytes ? loadBig32(bytes.get()) : 0; }
    [[nodiscard]] Bytes view() const { return {bytes.get(), size()}; }
};

/// A built message, or an error code.
struct Built {
    int code = 0;  ///< 0, else a code of the message table (8 also when no memory is left)
    OwnedMessage message;
};

struct Flavour {
    std::int32_t id = 0;
    const char* name = nullptr;    ///< null: not sent
    const char* ticket = nullptr;  ///< null: not sent
    std::int32_t key = 0;
    std::int32_t flags = 0;
};

struct InitFields {
    const char* userId = "";
    const char* session = nullptr;  ///< null: not known yet, not sent
    const char* service = "";
    const char* network = "";
    const char* control = nullptr;  ///< dotted subject of the control inbox; null: not sent
    Flavour flavour;
};

/// The init message. Gives 8 when the texts do not fit `kControlCapacity`.
[[nodiscard]] Built buildInit(const InitFields& fields);

/// A listen message. `subject` is encoded; `returnSubject` is dotted text or null; the flavour id
/// is sent unless it is 0.
[[nodiscard]] Built buildListen(Bytes subject, const char* returnSubject, std::int32_t flavourId);
[[nodiscard]] Built buildCancel(Bytes subject, std::int32_t flavourId);

/// Payload of a data message, as for `rv_Send`. `RVMSG_NONE` is no payload; size 0 is computed for
/// nested messages, strings and sealed blocks. Size 0 of any other type, and null data, give 3.
struct Payload {
    rvmsg_Type type = RVMSG_NONE;
    rvmsg_Size size = 0;
    rvmsg_Data data = nullptr;
};

/// A data message that is yet to be written, on views of its fields. `reply` is dotted text; null
/// or empty: not sent.
class DataMessage {
  public:
    DataMessage(Bytes subject, const char* reply, std::int32_t flavourId, const Payload& payload);

    /// 0, or why it cannot be written: 3 for the payload, 10 when it exceeds the link's limit.
    [[nodiscard]] int code() const { return code_; }
    /// Bytes of the buffer that it needs; a little more than the message.
    [[nodiscard]] std::uint32_t capacity() const { return capacity_; }
    /// Writes the message into `capacity()` bytes. Returns 8 when the size given is less than the
    /// payload takes.
    [[nodiscard]] int writeTo(std::uint8_t* buffer) const;

  private:
    Bytes subject_;
    const char* reply_;
    std::size_t replyLength_ = 0;
    std::int32_t flavourId_;
    Payload payload_;
    int code_ = 0;
    std::uint32_t capacity_ = 0;
};

/// The same in memory of its own. Gives 8 also without memory.
[[nodiscard]] Built buildData(Bytes subject, const char* reply, std::int32_t flavourId,
                              const Payload& payload);

/// Bytes of a data message's buffer. `replyLength` without terminator, 0 for none; `payloadSize` is
/// counted only when `hasPayload`.
[[nodiscard]] std::uint64_t dataCapacity(std::size_t subjectLength, std::size_t replyLength,
                                         bool hasPayload, std::uint64_t payloadSize);

/// The daemon's answer to an init without "session". Address and port are in network byte order, as
/// sockets hold them.
[[nodiscard]] Built buildReply(std::uint32_t ipAddress, std::uint16_t ipPort);
[[nodiscard]] Built buildErrorReply(std::int32_t error);

/// The daemon's answer as the client reads it.
struct Reply {
    int code = 1;  ///< session code: 0; the daemon's "error"; 1, 16 or 17 for an unreadable answer
    std::uint32_t ipAddress = 0;  ///< network byte order
    std::uint16_t ipPort = 0;     ///< network byte order
};
[[nodiscard]] Reply readReply(Bytes message);

/// An init message as the daemon reads it. A field that is absent or not a string is empty.
struct Init {
    std::optional<std::string_view> userId;
    std::optional<std::string_view> session;
    std::optional<std::string_view> service;
    std::optional<std::string_view> network;
    std::optional<std::string_view> control;
};
[[nodiscard]] Init readInit(Bytes message);

/// The two fields by which a message is routed.
struct Routing {
    MessageType type = MessageType::Unknown;
    Bytes subject;  ///< encoded, its own length first and consistent; empty when there is none
};

/// A message and the fields of it that a session delivers: the first of each name.
struct Envelope {
    Bytes bytes;
    Bytes subject;    ///< encoded, as in `Routing`; empty when there is none
    WireField reply;  ///< "return"; of type `RVMSG_BADDATA` when there is none
    WireField data;   ///< likewise

    /// The reply subject: zero-terminated dotted text; null when it is absent, empty or no text.
    [[nodiscard]] const char* replyText() const;
};

/// Checks a received message as `rvmsg_Validate` does, whose codes it returns, and reads it in the
/// same pass. It may nest one level more, so that every valid payload arrives.
[[nodiscard]] int openEnvelope(Bytes message, Envelope& envelope);
/// Reads a message that has been checked, or that this process has built.
[[nodiscard]] Envelope readEnvelope(Bytes message);

/// Reads only "mtype" and "sub". Does not check the elements of the subject (`SubjectView::parse`).
[[nodiscard]] Routing readRouting(Bytes message);

}  // namespace kvx::wire
