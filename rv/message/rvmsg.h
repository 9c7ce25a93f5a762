#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "platform/Export.h"

/// Self-describing messages in a caller's buffer: a contiguous run of named, typed fields that may
/// nest messages. None of these functions allocates, and none needs an aligned buffer.
///
/// Every `int` result is a message code: 0 success, 1 not an initialised message, 3 invalid
/// argument, 8 no room, 9 invalid name, 10 invalid data, 11 no such field. The texts are those of
/// `rvmsg_ErrorText` (rv/error/rvErrors.h). Readers trust only the length word of the message:
/// whatever the fields hold, they never read past it. One message is used by one thread at a time.

using rvmsg_Type = std::uint32_t;
using rvmsg_Size = std::uint32_t;
using rvmsg_Data = const void*;
using rvmsg_Msg = void*;

/// The type codes. All others are unlisted: a field of such a type is a name and a type byte.
enum : rvmsg_Type {
    RVMSG_BADDATA = 0,     ///< no value; never stored
    RVMSG_MSG = 1,         ///< a complete message, header first
    RVMSG_SUBJECT = 2,     ///< an encoded subject (rvSubject.h)
    RVMSG_DATETIME = 3,    ///< three words: high byte of the seconds, low 32 bits, microseconds
    RVMSG_OPAQUE = 7,      ///< raw bytes
    RVMSG_STRING = 8,      ///< text; its size counts the terminating zero
    RVMSG_BOOLEAN = 9,     ///< an integer of 1, 2 or 4 bytes; one byte on the wire
    RVMSG_IPDATA = 10,     ///< address (4 bytes) or port (2 bytes), in network byte order
    RVMSG_INT = 11,        ///< signed, 1, 2, 4 or 8 bytes
    RVMSG_UINT = 12,       ///< unsigned, 1, 2, 4 or 8 bytes
    RVMSG_REAL = 13,       ///< float (4 bytes) or double (8 bytes)
    RVMSG_NONE = 22,       ///< no value; never stored, printed as "NONE"
    RVMSG_ENCRYPTED = 32,  ///< a sealed block (see `rvmsg_Unseal`)
};

/// Makes `buffer` an empty message of 8 bytes. Returns 8 when `capacity` is less.
KVX_API int rvmsg_Init(void* buffer, rvmsg_Size capacity);

/// Sets `*length` to the message's length in bytes, header included. Returns 1 without the magic.
KVX_API int rvmsg_Length(const void* buffer, rvmsg_Size* length);

/// Adds one field at the end. A name with full stops is a path: all but its last element name
/// nested messages, the innermost of which gets the field. `name` null or "" makes an unnamed
/// field. `size` is ignored for messages, subjects and sealed blocks, whose own length word counts;
/// size 0 of a string means its text length + 1. A failed append leaves the message unchanged. Name
/// and data may lie in the message.
KVX_API int rvmsg_Append(void* buffer, rvmsg_Size capacity, const char* name, rvmsg_Type type,
                         rvmsg_Size size, rvmsg_Data data);

/// Finds the first field called `name` (or the field at a dotted path) and decodes it. Numbers,
/// dates and addresses are decoded into `scratch` (at least 12 bytes, aligned for a double); all
/// other data points into `buffer`. Any of the three outputs may be null.
KVX_API int rvmsg_Get(void* scratch, const void* buffer, const char* name, rvmsg_Type* type,
                      rvmsg_Size* size, rvmsg_Data* data);

/// The same without decoding: `*data` points to the wire form inside `buffer`.
KVX_API int rvmsg_GetRaw(const void* buffer, const char* name, rvmsg_Type* type, rvmsg_Size* size,
                         rvmsg_Data* data);

/// Called for one field; `name` is "" for an unnamed one. `data` is valid during the call only, but
/// opaque bytes lie in the buffer. A nonzero result ends the walk.
using rvmsg_IterateCallback = int (*)(const char* name, rvmsg_Type type, rvmsg_Size size,
                                      rvmsg_Data data, void* closure);

/// Calls `callback` for every field in buffer order, or for every field called `name` when that is
/// not null. Data is decoded as by `rvmsg_Get`; data that cannot be decoded is passed as type 0,
/// size 0, null. Returns 0, also when the callback ended the walk; 10 at a field that runs past the
/// end, after the fields before it.
KVX_API int rvmsg_Iterate(const void* buffer, const char* name, rvmsg_IterateCallback callback,
                          void* closure);

/// Converts a decoded value into `targetSize` bytes at `target`; 3 for every pair of types or sizes
/// that has no conversion. Integers are cut to the target's width without a range check. A string
/// target of an address or of an 8-byte integer receives one byte (the terminator) more than the
/// required capacity: 5, 9 and 17 bytes for 4, 8 and 16.
KVX_API int rvmsg_Convert(rvmsg_Type targetType, rvmsg_Size targetSize, void* target,
                          rvmsg_Type sourceType, rvmsg_Size sourceSize, rvmsg_Data source);

/// Writes a decoded value as text; a null `stream` means standard output. Messages nested deeper
/// than 32 levels are shown as "{}".
KVX_API int rvmsg_Print(rvmsg_Type type, rvmsg_Size size, rvmsg_Data data, FILE* stream);

/// Writes a whole message, in braces, each field as its name, an equals sign and its value.
KVX_API int rvmsg_PrintMsg(const void* buffer, FILE* stream);

/// Initialises `buffer` and appends "ADV_CLASS", "ADV_SOURCE", "ADV_NAME" and, when `description`
/// is not null, "ADV_DESC". Returns 3 for a null class, source or name, 9 for a class with a full
/// stop. The texts may lie in `buffer`: the fields are then built behind them, which needs that
/// much more room.
KVX_API int rvmsg_AppendAdvisoryFields(void* buffer, rvmsg_Size capacity, const char* advClass,
                                       const char* source, const char* name,
                                       const char* description);

/// Checks a whole untrusted message: its length word is `length`, every field lies inside its
/// message, no size is larger than its type allows, nothing is left over, and messages nest at most
/// 32 levels below the top one. Returns 0, 1 for a missing magic, else 10. Subjects are checked for
/// their length only; `kvx::SubjectView::parse` checks their elements.
KVX_API int rvmsg_Validate(const void* bytes, std::size_t length);

/// Opens the payload of a sealed block: returns the unsealed value and sets `*length` to its size;
/// null on failure.
using rvmsg_UnsealRoutine = rvmsg_Data (*)(rvmsg_Data payload, rvmsg_Size payloadLength,
                                           rvmsg_Size* length, void* closure);

/// Checks the header of a sealed block of `blockLength` bytes at `block` and lets `unseal` open its
/// payload. The block holds a length word, the magic 0x9955EEBB, the type code of the sealed value
/// and the payload. The value belongs to `unseal`. Returns 10 for a block without the magic,
/// shorter than 9 bytes or longer than `blockLength`, and when `unseal` returns null.
KVX_API int rvmsg_Unseal(rvmsg_Data block, rvmsg_Size blockLength, rvmsg_UnsealRoutine unseal,
                         void* closure, rvmsg_Type* type, rvmsg_Size* size, rvmsg_Data* data);
