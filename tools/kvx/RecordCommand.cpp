// kvx record: copies the messages of a recording, which somebody may be writing, into a new one
// that has room for just these. Read twice: what comes in between takes the place of the oldest.

#include <fmt/format.h>

#include <cstdint>
#include <string>

#include "platform/Clock.h"
#include "platform/MappedFile.h"
#include "rv/recording/RecordFormat.h"
#include "tools/bus/Complain.h"
#include "tools/bus/Output.h"
#include "tools/kvx/DaemonAnswers.h"
#include "tools/kvx/DaemonView.h"
#include "tools/kvx/Recording.h"

namespace kvx::tool {

namespace {

int refuse(const std::string& path, const std::string& reason) {
    bus::complain(fmt::format("cannot write {}: {}", path, reason));
    return kFailure;
}

// What the copy has in the end: while somebody writes, new ones take the place of its oldest.
std::uint64_t countOf(const std::string& path) {
    recording::RecordingReader reader(path);
    std::uint64_t messages = 0;
    while (reader.next()) ++messages;
    return messages;
}

int copy(const std::string& from, const RecordingOptions& options) {
    std::uint64_t bytes = 0;
    {
        Recording recording(from, options);
        if (recording.status() != kSuccess) return recording.status();
        while (const auto entry = recording.next()) {
            bytes += recording::RecordingWriter::bytesFor(*entry);
        }
        if (bytes == 0) return recording.complainEmpty();
    }
    std::string error;
    const auto capacity = recording::RecordingWriter::capacityFor(bytes);
    const auto file = platform::MappedFile::create(
        options.file, static_cast<std::size_t>(recording::kFileHeadBytes + capacity), error);
    if (!error.empty()) return refuse(options.file, error);
    const auto now = static_cast<std::uint64_t>(platform::wallMilliseconds()) * 1'000'000;
    recording::RecordingWriter writer(file.bytes(), recording::RecordingWriter::newSeed(), now);
    Recording recording(from, options);
    while (const auto entry = recording.next()) {
        writer.add(*entry);
    }
    const std::uint64_t messages = countOf(options.file);
    bus::printLine(options.connection.json
                       ? fmt::format(R"({{"messages":{},"bytes":{}}})", messages, bytes)
                       : fmt::format("{} messages, {}", countText(messages),
                                     bytesText(static_cast<double>(bytes))));
    return kSuccess;
}

}  // namespace

int record(const RecordingOptions& options) {
    if (!options.from.empty()) return copy(options.from, options);
    DaemonOptions asked;
    asked.connection = options.connection;
    asked.timeoutSeconds = options.timeoutSeconds;
    return askDaemon(asked, {{bus::kStatusSubject}}, [&options](const auto& answers) {
        const std::string from = textIn(answers[0], "recorder_file");
        if (from.empty()) {
            bus::complain("the daemon records nothing (see -recorder of rvd)");
            return kFailure;
        }
        const recording::RecordingReader found(from);
        const std::uint64_t process = numberIn(answers[0], "pid");
        if (!found.problem().empty() || found.process() == process) return copy(from, options);
        bus::complain(
            fmt::format("{} is not what the daemon, process {}, writes: it is on another "
                        "host, or another daemon has that path",
                        from, process));
        return kFailure;
    });
}

}  // namespace kvx::tool
