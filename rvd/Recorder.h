#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/MappedFile.h"
#include "rv/recording/RecordingWriter.h"
#include "rv/wire/Limits.h"
#include "rvd/Line.h"
#include "rvd/Router.h"

namespace kvx::rvd {

/// Keeps the last messages that sessions have sent in a file, where they can be read also after
/// this process was killed. Loop thread only.
class Recorder {
  public:
    struct Settings {
        std::uint64_t size = 0;          ///< bytes of the ring; 0: nothing is recorded
        std::uint64_t messageBytes = 0;  ///< of each message at most
        std::string path;                ///< empty: a usual place, in memory if there is one
    };

    /// A new file; one that is there is kept, as that path with ".1" behind it. `address` is that
    /// of the daemon. On failure null, and `error` has path and reason. Throws `std::bad_alloc`.
    static std::unique_ptr<Recorder> create(const Settings& settings, const std::string& address,
                                            Line::Clock clock, std::string& error);
    /// Where a recorder is in its recording.
    struct Place {
        std::uint64_t seed = 0;      ///< of the recording; 0: there was no recorder
        std::uint64_t position = 0;  ///< of the next record
    };
    /// Goes on with the file of the daemon that this one replaces, from where that one was, or else
    /// creates a new one. Reads nothing but its head: everybody waits meanwhile.
    static std::unique_ptr<Recorder> goOn(const Settings& settings, const std::string& address,
                                          Line::Clock clock, const Place& place,
                                          std::string& error);

    /// `receivedAt`: of the clock.
    void record(const Router::Session& from, std::uint64_t sender, SubjectView subject,
                wire::Bytes message, Nanoseconds receivedAt) noexcept;

    /// About once a second: follows the wall clock when it was set.
    void tick() noexcept;

    [[nodiscard]] Place place() const { return {writer_.seed(), writer_.position()}; }
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::uint64_t messages() const { return messages_; }  ///< recorded so far

  private:
    Recorder(std::string path, platform::MappedFile file, recording::RecordingWriter writer,
             std::uint64_t messageBytes, Line::Clock clock);

    const std::string path_;
    const platform::MappedFile file_;
    recording::RecordingWriter writer_;
    const std::size_t messageBytes_;
    const Line::Clock clock_;
    Nanoseconds wallAhead_ = 0;                 // of the clock
    std::uint64_t sender_ = ~std::uint64_t{0};  // of the last message
    Nanoseconds receivedAt_ = 0;                // and when it was read
    std::uint64_t messages_ = 0;
};

}  // namespace kvx::rvd
