#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace modeld {

/// Tells when files have changed and come to rest, and when they go and come back. One thread at a
/// time.
class FileWatch {
  public:
    /// What the files are at this moment counts as known.
    explicit FileWatch(std::vector<std::string> files);

    /// Looks at the files. True when they are not what is known, all there, and as they were at the
    /// look before: a file that is being written is left alone until it rests.
    [[nodiscard]] bool look();

    /// Whether every file that the last look found is what is known.
    bool isSettled() const;

    /// A file that the last look found gone, or there again.
    struct Turn {
        std::string file;
        bool isThere = false;
    };
    /// What has turned from the look before to the last one.
    const std::vector<Turn>& turns() const { return turns_; }

    /// Makes what the last look saw known, unless the files have changed since that look.
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
    using Stamps = std::vector<std::optional<Stamp>>;  // nothing for a file that is not there

    Stamps stamps() const;

    const std::vector<std::string> files_;
    Stamps known_;
    Stamps seen_;
    std::vector<Turn> turns_;
};

}  // namespace modeld
