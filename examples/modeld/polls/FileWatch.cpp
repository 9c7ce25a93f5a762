// A file is identified by device, inode, size and modification time. Three sets of these stamps
// decide: what is known (loaded), what the last look saw, and what the look before saw. A change is
// reported when two looks in a row saw the same, which differs from what is known, with all files
// present.

#include "examples/modeld/polls/FileWatch.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace modeld {

FileWatch::FileWatch(std::vector<std::string> files)
    : files_(std::move(files)), known_(stamps()), seen_(known_) {}

bool FileWatch::look() {
    const Stamps before = std::exchange(seen_, stamps());
    turns_.clear();
    for (std::size_t i = 0; i < files_.size(); ++i) {
        if (before[i].has_value() != seen_[i].has_value()) {
            turns_.push_back({files_[i], seen_[i].has_value()});
        }
    }
    const bool allThere = std::all_of(seen_.begin(), seen_.end(),
                                      [](const auto& stamp) { return stamp.has_value(); });
    return allThere && seen_ == before && seen_ != known_;
}

bool FileWatch::isSettled() const {
    for (std::size_t i = 0; i < files_.size(); ++i) {
        if (seen_[i] && seen_[i] != known_[i]) return false;
    }
    return true;
}

void FileWatch::know() {
    if (stamps() == seen_) known_ = seen_;
}

FileWatch::Stamps FileWatch::stamps() const {
    Stamps found;
    for (const auto& file : files_) {
        struct stat status = {};
        if (stat(file.c_str(), &status) != 0) {
            found.emplace_back();
            continue;
        }
        found.emplace_back(Stamp{status.st_dev, status.st_ino, status.st_size,
                                 status.st_mtim.tv_sec, status.st_mtim.tv_nsec});
    }
    return found;
}

}  // namespace modeld
