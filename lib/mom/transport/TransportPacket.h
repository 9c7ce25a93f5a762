#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/Export.h"
#include "rv/message/WireFormat.h"

/// The format of a transport packet: bytes in, values out.
///
///     offset  bytes
///          0      8  sequence number, from 1
///          8      8  packets in the batch
///         16      2  header version
///         18      2  payload kind
///         20      2  bytes between header and payload; written as 0
///         22      2  store status
///         24         payload; a compressed one begins with its uncompressed length (4 bytes)
///
/// A payload is a sequence of records, each preceded by its length in 4 bytes. All numbers are
/// big-endian.
namespace kvx::packet {

using Bytes = std::span<const unsigned char>;

inline constexpr std::size_t kHeaderSize = 24;  // bytes
inline constexpr std::size_t kLengthSize = 4;   // bytes of a length word

inline constexpr std::uint16_t kPlain = 0;
inline constexpr std::uint16_t kCompressed = 1;

/// The largest uncompressed payload that a receiver accepts, in bytes.
inline constexpr std::uint32_t kLargestPayload = 256U << 20;

/// The most records that a receiver reads from one compressed packet.
inline constexpr std::size_t kMostRecords = 65'536;

struct Header {
    std::int64_t sequence = 0;
    std::int64_t count = 0;
    std::uint16_t version = 0;
    std::uint16_t kind = kPlain;
    std::uint16_t extension = 0;
    std::uint16_t status = 0;
};

/// The largest packet that a message holds, in bytes: 2 KiB remain for subjects, names and headers.
inline constexpr std::size_t kLargestPacket = kMaxMessageBytes - 2048;

/// Writes `header` to the `kHeaderSize` bytes at `out` and returns the position behind them.
KVX_API unsigned char* writeHeader(unsigned char* out, const Header& header);

/// The header of a packet; nothing when the packet is shorter than one.
KVX_API std::optional<Header> readHeader(Bytes packet);

/// Writes a length word and then `bytes`, and returns the position behind them.
unsigned char* writeRecord(unsigned char* out, Bytes bytes);

/// Whether a stream of `compressed` bytes can inflate to `uncompressed` bytes (at most 1032 for
/// each), and a receiver accepts that size.
bool isPlausible(std::uint32_t uncompressed, std::size_t compressed);

/// Walks the records of a payload.
class RecordReader {
  public:
    explicit RecordReader(Bytes payload) : rest_(payload) {}

    /// The next non-empty record; nothing at the end and at a defect.
    KVX_API std::optional<Bytes> next();

    /// Whether a length word, or a record, ran past the end.
    bool isDefective() const { return defective_; }

  private:
    std::optional<Bytes> stopAtDefect();

    Bytes rest_;
    bool defective_ = false;
};

}  // namespace kvx::packet
