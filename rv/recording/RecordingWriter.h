#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/Export.h"
#include "rv/message/SubjectView.h"
#include "rv/recording/RecordFormat.h"

namespace kvx::recording {

/// Where messages come from.
struct Origin {
    std::uint64_t time = 0;     ///< nanoseconds since the epoch
    std::uint64_t session = 0;  ///< the number of their sender
    std::string_view service;
    std::string_view network;
};

/// One message as it is recorded.
struct Entry : Origin {
    SubjectView subject;
    std::span<const std::uint8_t> message;  ///< its bytes, or the first ones
    std::uint32_t messageSize = 0;          ///< of all of it
};

/// Keeps the last messages in a recording in memory, mostly a file that is mapped. What it has
/// written can be read at any time, by others and after this process was killed. One thread.
class KVX_API RecordingWriter {
  public:
    /// The capacity that holds those entries that take so many bytes in all.
    static std::uint64_t capacityFor(std::uint64_t bytes);
    /// What an entry takes with a run of its own.
    static std::uint64_t bytesFor(const Entry& entry);

    /// A random one, for a recording.
    static std::uint64_t newSeed();

    /// Makes an empty recording of `memory`, which must be as large as head and capacity together,
    /// start at a multiple of 8 and outlive this object. `seed` is random: who does not know it
    /// cannot make up a record within a message. `created` in nanoseconds since the epoch.
    RecordingWriter(std::span<std::uint8_t> memory, std::uint64_t seed, std::uint64_t created);
    /// Goes on with the recording that a writer has left at that position.
    RecordingWriter(std::span<std::uint8_t> memory, std::uint64_t position);

    /// Of the messages that are added from now on. Those of one origin need less room and time.
    void begin(const Origin& origin) noexcept;
    /// Adds a message, of which `message` is all or the beginning, and overwrites the oldest ones.
    /// It needs least when its subject is within it. Of a message for which the whole ring has no
    /// room the beginning is kept.
    void add(SubjectView subject, std::span<const std::uint8_t> message,
             std::uint32_t size) noexcept {
        if (isWhole(subject, message, size) && size <= mostBytes_) {
            addWhole(message, static_cast<std::uint32_t>(placeIn(message, subject)));
        } else {
            addPart(subject, message, size);
        }
    }
    /// Both.
    void add(const Entry& entry) noexcept {
        begin(entry);
        add(entry.subject, entry.message, entry.messageSize);
    }

    [[nodiscard]] std::uint64_t seed() const { return seed_; }
    /// Where the next head is, in bytes since the ring was made.
    [[nodiscard]] std::uint64_t position() const { return position_; }

  private:
    static std::uintptr_t placeIn(std::span<const std::uint8_t> message, SubjectView subject) {
        return reinterpret_cast<std::uintptr_t>(subject.data()) -
               reinterpret_cast<std::uintptr_t>(message.data());
    }
    // Whether it is all there, its subject within it.
    static bool isWhole(SubjectView subject, std::span<const std::uint8_t> message,
                        std::uint32_t size) {
        const std::uintptr_t at = placeIn(message, subject);
        return message.size() == size && at < size && subject.length() <= size - at;
    }
    void addWhole(std::span<const std::uint8_t> message, std::uint32_t subjectAt) noexcept;
    void addPart(SubjectView subject, std::span<const std::uint8_t> message,
                 std::uint32_t size) noexcept;
    std::uint8_t* place(std::size_t length) noexcept;
    void beginRun(std::size_t room) noexcept;
    void finish(std::uint8_t* head, std::uint32_t length, std::uint32_t subjectAt,
                const Check& check) noexcept;

    std::span<std::uint8_t> ring_;
    std::uint64_t seed_;
    std::uint64_t position_ = 0;
    std::size_t offset_ = 0;     // of the position
    std::uint64_t run_ = 0;      // the check of this run
    std::size_t runEnd_ = 0;     // where no message of it begins any more
    std::size_t mostBytes_ = 0;  // of a message with its head and that of a run
    std::array<std::uint8_t, runHeadBytes(kMostNameBytes, kMostNameBytes)> runHead_{};
    std::size_t runHeadSize_ = 0;
};

}  // namespace kvx::recording
