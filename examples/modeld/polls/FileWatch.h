#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace modeld {

/// Detects when files have changed and are no longer being written, and when they disappear and
/// return. One thread at a time.
class FileWatch {
  public:
    /// The current state of the files counts as known.
    explicit FileWatch(std::vector<std::string> files);

    /// Looks at the files. True when all exist, differ from what is known, and are the same as at
    /// the look before, so that a file is not read while it is being written.
    [[nodiscard]] bool look();

    /// Whether every file that the last look found is as known.
    bool isSettled() const;

    /// A file that disappeared or returned.
    struct Turn {
        std::string file;
        bool isThere = false;
    };
    /// The files that disappeared or returned between the last two looks.
    const std::vector<Turn>& turns() const { return turns_; }

    /// Makes the state of the last look known, unless the files have changed since.
    void know();

  private:
    struct Stamp {
        std::uint64_t device = 0;
        std::uint64_t inode = 0;
        std::int64_t bytes = 0;
        std::int64_t seconds = 0;
        std::int64_t nanoseconds = 0;

        bool operator==(const Stamp&) const = default;
    };
    using Stamps = std::vector<std::optional<Stamp>>;  // nothing for a missing file

    Stamps stamps() const;

    const std::vector<std::string> files_;
    Stamps known_;
    Stamps seen_;
    std::vector<Turn> turns_;
};

}  // namespace modeld
