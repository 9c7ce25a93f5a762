#include "rvd/Recorder.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "platform/Clock.h"
#include "platform/Process.h"
#include "rv/recording/RecordFormat.h"
#include "rv/recording/RecordingReader.h"

namespace kvx::rvd {
namespace {

namespace fs = std::filesystem;

// Files there are never written to a disk, which costs the daemon a fault for each page again and
// again.
constexpr const char* kInMemory = "/dev/shm";
constexpr const char* kSupervisors = "RUNTIME_DIRECTORY";  // variable: paths with ':' between them
constexpr Nanoseconds kPerMillisecond = 1'000'000;
constexpr Nanoseconds kClockSet = 100 * kPerMillisecond;  // a difference that is no noise

std::string usualDirectory() {
    if (const char* const given = std::getenv(kSupervisors); given != nullptr && *given != '\0') {
        return std::string(given, std::strcspn(given, ":"));
    }
    std::error_code error;
    return fs::is_directory(kInMemory, error) ? kInMemory : platform::stateDirectory();
}

std::string pathFor(const Recorder::Settings& settings, const std::string& address) {
    std::error_code error;
    if (!settings.path.empty()) return fs::absolute(settings.path, error).string();
    const std::string directory = usualDirectory();
    if (directory.empty()) return {};
    std::string name = "rvd-" + platform::userName() + '-' + address;
    std::ranges::replace_if(
        name, [](char c) { return c == '/' || c == ':'; }, '-');
    return directory + '/' + name + ".ring";
}

// Only a recording gives way. Returns an empty text, or the error.
std::string makeWay(const std::string& path, const std::string& aside) {
    std::error_code error;
    for (const std::string& taken : {path, aside}) {
        if (!fs::exists(fs::symlink_status(taken, error))) {
            if (taken == path) return {};
            continue;
        }
        const recording::RecordingReader old(taken);
        if (!old.problem().empty()) return taken + ": something has that path: " + old.problem();
    }
    fs::rename(path, aside, error);
    return error ? path + ": " + error.message() : "";
}

}  // namespace

Recorder::Recorder(std::string path, platform::MappedFile file, recording::RecordingWriter writer,
                   std::uint64_t messageBytes, Line::Clock clock)
    : path_(std::move(path)),
      file_(std::move(file)),
      writer_(writer),
      messageBytes_(static_cast<std::size_t>(messageBytes)),
      clock_(clock) {
    tick();
}

std::unique_ptr<Recorder> Recorder::create(const Settings& settings, const std::string& address,
                                           Line::Clock clock, std::string& error) {
    const std::string path = pathFor(settings, address);
    error = path.empty() ? "no directory for it" : makeWay(path, path + ".1");
    if (!error.empty()) return nullptr;
    const std::uint64_t capacity = recording::padded(settings.size);
    auto file = platform::MappedFile::create(
        path, static_cast<std::size_t>(recording::kFileHeadBytes + capacity), error);
    if (!error.empty()) {
        error = path + ": " + error;
        return nullptr;
    }
    const auto now = static_cast<std::uint64_t>(platform::wallMilliseconds() * kPerMillisecond);
    const recording::RecordingWriter writer(file.bytes(), recording::RecordingWriter::newSeed(),
                                            now);
    return std::unique_ptr<Recorder>(
        new Recorder(path, std::move(file), writer, settings.messageBytes, clock));
}

std::unique_ptr<Recorder> Recorder::goOn(const Settings& settings, const std::string& address,
                                         Line::Clock clock, const Place& place,
                                         std::string& error) {
    const std::string path = pathFor(settings, address);
    const recording::RecordingReader old(path);
    const bool isSame = old.problem().empty() && old.seed() == place.seed &&
                        old.capacity() == recording::padded(settings.size);
    platform::MappedFile file;
    if (isSame) file = platform::MappedFile::open(path, error);
    if (file.bytes().size() != recording::kFileHeadBytes + old.capacity()) {
        return create(settings, address, clock, error);
    }
    const recording::RecordingWriter writer(file.bytes(), place.position);
    return std::unique_ptr<Recorder>(
        new Recorder(path, std::move(file), writer, settings.messageBytes, clock));
}

void Recorder::record(const Router::Session& from, std::uint64_t sender, SubjectView subject,
                      wire::Bytes message, Nanoseconds receivedAt) noexcept {
    ++messages_;
    if (sender != sender_ || receivedAt != receivedAt_) {
        writer_.begin({static_cast<std::uint64_t>(receivedAt + wallAhead_), sender, from.service(),
                       from.network()});
        sender_ = sender;
        receivedAt_ = receivedAt;
    }
    writer_.add(subject, message.first(std::min(message.size(), messageBytes_)),
                static_cast<std::uint32_t>(message.size()));
}

void Recorder::tick() noexcept {
    const Nanoseconds ahead = platform::wallMilliseconds() * kPerMillisecond - clock_();
    if (std::abs(ahead - wallAhead_) > kClockSet) wallAhead_ = ahead;
}

}  // namespace kvx::rvd
