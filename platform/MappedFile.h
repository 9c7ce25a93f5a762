#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/Export.h"

namespace kvx::platform {

/// A file in the memory of this process. What is written there is in the file at once for all
/// others, and stays when this process is killed; the system may write it to the disk later. Who
/// makes the file shorter meanwhile ends this process. Any thread, one at a time.
class KVX_API MappedFile {
  public:
    /// Makes a file that only this user may read and write, with its space on the disk, of zeros.
    /// On failure, also when something has that path, it is empty and `error` says why.
    [[nodiscard]] static MappedFile create(const std::string& path, std::size_t size,
                                           std::string& error);
    /// Opens a regular file of this user as a whole, for writing.
    [[nodiscard]] static MappedFile open(const std::string& path, std::string& error);

    MappedFile() = default;
    ~MappedFile();
    MappedFile(MappedFile&& other) noexcept;
    MappedFile& operator=(MappedFile&& other) noexcept;

    [[nodiscard]] std::span<std::uint8_t> bytes() const { return bytes_; }

  private:
    static MappedFile mapped(int descriptor, std::size_t size, std::string& error);

    std::span<std::uint8_t> bytes_;
};

}  // namespace kvx::platform
