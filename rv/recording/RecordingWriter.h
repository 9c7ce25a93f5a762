#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/Export.h"
#include "rv/message/SubjectView.h"

namespace kvx::recording {

/// One message as it is recorded.
struct Entry {
    std::uint64_t time = 0;     ///< nanoseconds since the epoch
    std::uint64_t session = 0;  ///< the number of its sender
    std::string_view service;
    std::string_view network;
    SubjectView subject;
    std::span<const std::uint8_t> message;  ///< its bytes, or the first ones
    std::uint32_t messageSize = 0;          ///< of all of it
};

/// Keeps the last messages in a recording in memory, mostly a file that is mapped. What it has
/// written can be read at any time, by others and after this process was killed. One thread.
class KVX_API RecordingWriter {
  public:
    /// The capacity that holds those entries whose records take so many bytes in all.
    static std::uint64_t capacityFor(std::uint64_t bytes);
    /// What the record of an entry takes.
    static std::uint64_t bytesFor(const Entry& entry);

    /// A random one, for a recording.
    static std::uint64_t newSeed();

    /// Makes an empty recording of `memory`, which must be as large as head and capacity together,
    /// start at a multiple of 8 and outlive this object. `seed` is random: who does not know it
    /// cannot make up a record within a message. `created` in nanoseconds since the epoch.
    RecordingWriter(std::span<std::uint8_t> memory, std::uint64_t seed, std::uint64_t created);
    /// Goes on with the recording that a writer has left at that position.
    RecordingWriter(std::span<std::uint8_t> memory, std::uint64_t position);

    /// Overwrites the oldest ones. Of a message for which the whole ring has no room the beginning
    /// is kept.
    void add(const Entry& entry) noexcept;

    [[nodiscard]] std::uint64_t seed() const { return seed_; }
    /// Where the next record is, in bytes since the ring was made.
    [[nodiscard]] std::uint64_t position() const { return position_; }

  private:
    std::span<std::uint8_t> ring_;
    std::uint64_t seed_;
    std::uint64_t position_ = 0;
    std::size_t offset_ = 0;  // of the position
};

}  // namespace kvx::recording
