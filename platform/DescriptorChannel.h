#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/Clock.h"
#include "platform/Descriptor.h"
#include "platform/Export.h"

namespace kvx::platform {

/// One end of a channel between two processes of this host, whose messages may carry descriptors:
/// the receiver gets others of the same files and sockets. Blocking; any thread, one at a time.
class KVX_API DescriptorChannel {
  public:
    static constexpr std::size_t kMostBytes = 64 * 1024;  ///< of a message
    static constexpr std::size_t kMostDescriptors = 250;  ///< with one message
    static constexpr Milliseconds kForever = -1;          ///< a time-out that does not come

    struct Message {
        std::vector<std::uint8_t> bytes;
        std::vector<Descriptor> descriptors;
    };

    /// Takes ownership of one end.
    explicit DescriptorChannel(Descriptor end) noexcept : end_(std::move(end)) {}
    /// Both ends of a new channel, or nothing. No end is inherited by programs that are started,
    /// unless they are given it (`Program::inherited`).
    [[nodiscard]] static std::optional<std::pair<DescriptorChannel, DescriptorChannel>> make();

    /// Sends one message, which must not be empty. False when the other end is gone or has not read
    /// within `timeout`.
    [[nodiscard]] bool send(std::span<const std::uint8_t> bytes,
                            std::span<const int> descriptors = {}, Milliseconds timeout = 10'000);
    /// The next message; nothing when the other end is gone, or within `timeout`.
    [[nodiscard]] std::optional<Message> receive(Milliseconds timeout = 10'000);

    [[nodiscard]] int descriptor() const noexcept { return end_.get(); }

  private:
    [[nodiscard]] bool waitFor(short events, Milliseconds timeout) const noexcept;

    Descriptor end_;
};

/// A file in memory, without a name.
class KVX_API MemoryFile {
  public:
    /// A new, empty one; without a descriptor on failure.
    [[nodiscard]] static Descriptor create() noexcept;
    /// Appends. False without memory.
    [[nodiscard]] static bool write(int file, std::span<const std::uint8_t> bytes) noexcept;

    /// Maps all of `file` for reading.
    explicit MemoryFile(int file) noexcept;
    ~MemoryFile();
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    /// Its bytes; empty when it is, or on failure.
    [[nodiscard]] std::span<const std::uint8_t> bytes() const noexcept { return bytes_; }

  private:
    std::span<const std::uint8_t> bytes_;
};

}  // namespace kvx::platform
