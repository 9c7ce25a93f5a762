#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "rv/recording/RecordingReader.h"
#include "rv/rv.h"
#include "tools/kvx/Commands.h"

namespace kvx::tool {

/// The messages of a recording that the options of a command select, the oldest first.
class Recording {
  public:
    /// With `status()` other than `kSuccess` it cannot be read: reported on standard error.
    Recording(const std::string& path, const RecordingOptions& options);

    [[nodiscard]] int status() const { return status_; }

    /// The next one, valid until the next call; nothing at the end, where damage is reported on
    /// standard error.
    std::optional<recording::Entry> next();
    /// Says that it has no such message. Returns the exit status for that.
    [[nodiscard]] int complainEmpty() const;

  private:
    [[nodiscard]] bool isSelected(const recording::Entry& entry) const;

    const std::string path_;
    const RecordingOptions& options_;
    recording::RecordingReader reader_;
    std::optional<Subject> subject_;
    int status_;
};

/// Service and network, such as "7500" or "7500;eth0".
std::string spaceOf(const recording::Entry& entry);

/// Calls `use` with the reply subject (null: none) and the datum of a message that was recorded as
/// a whole. False, without a call, for another one.
bool withContent(const recording::Entry& entry,
                 const std::function<void(const char* reply, const RvDatum& datum)>& use);

}  // namespace kvx::tool
