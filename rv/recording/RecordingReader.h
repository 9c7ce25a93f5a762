#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Export.h"
#include "rv/recording/RecordingWriter.h"

namespace kvx::recording {

/// Whether the message of an entry is there as a whole, and sound: it may be read as a message.
[[nodiscard]] KVX_API bool isWholeMessage(const Entry& entry);

/// Whether the subject of an entry is one that `pattern` covers.
[[nodiscard]] KVX_API bool isOn(const Entry& entry, SubjectView pattern);

/// Reads a recording, the oldest message first, also while somebody writes it, when it ends within
/// a message, and when it is no recording at all. Trusts nothing in it: what has no sound check is
/// passed over, in one pass over the file. Needs memory for one message. One thread.
class KVX_API RecordingReader {
  public:
    /// Opens the file and reads its head. `problem` tells whether that went well.
    explicit RecordingReader(const std::string& path);
    RecordingReader(const RecordingReader&) = delete;
    RecordingReader& operator=(const RecordingReader&) = delete;

    /// Why it cannot be read; empty when it can.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    /// The next one; nothing at the end. It is valid until the next call.
    [[nodiscard]] std::optional<Entry> next();

    /// Bytes of the ring.
    [[nodiscard]] std::uint64_t capacity() const { return capacity_; }
    /// The random number in its checks.
    [[nodiscard]] std::uint64_t seed() const { return seed_; }
    /// The id of the process that writes it, or was the last to do so.
    [[nodiscard]] std::uint64_t process() const { return process_; }
    /// The position behind its newest message: where it goes on. 0 when it has none.
    [[nodiscard]] std::uint64_t end();
    /// Messages so far whose head is sound and whose content is not.
    [[nodiscard]] std::uint64_t damaged() const { return damaged_; }

  private:
    struct Found {
        std::uint64_t position;
        std::span<const std::uint8_t> bytes;  // with its head and padding
    };

    [[nodiscard]] std::string open(const std::string& path);
    void findNewest();
    [[nodiscard]] std::span<const std::uint8_t> view(std::uint64_t offset, std::size_t bytes);
    [[nodiscard]] std::optional<Found> find(std::uint64_t until);
    [[nodiscard]] std::optional<Found> messageAt();
    [[nodiscard]] bool beginsRun();
    [[nodiscard]] std::optional<Entry> entryOf(const Found& found) const;

    std::ifstream file_;
    std::string problem_;
    std::uint64_t capacity_ = 0;
    std::uint64_t available_ = 0;  // bytes of the ring that the file has
    std::uint64_t seed_ = 0;
    std::uint64_t process_ = 0;
    bool hasLooked_ = false;  // for the newest message, which the following depends on
    std::uint64_t end_ = 0;
    std::uint64_t at_ = 0;        // offset in the ring of what is read next
    bool hasTurned_ = false;      // it has come to the start of the ring
    std::uint64_t nextFrom_ = 0;  // the least position of the next message
    bool hasRun_ = false;
    std::uint64_t runAt_ = 0;  // offset of the last run
    std::uint64_t runPosition_ = 0;
    std::uint64_t run_ = 0;  // its check
    std::string names_;      // of its service and network
    Origin origin_;          // with views of these
    std::uint64_t damaged_ = 0;
    std::vector<std::uint8_t> window_;
    std::uint64_t windowAt_ = 0;  // its offset in the ring
};

}  // namespace kvx::recording
