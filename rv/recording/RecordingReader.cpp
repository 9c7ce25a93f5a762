// The file is read twice: once from its start for the newest record, then, as a ring, from what
// follows that one. A place is a record when its position belongs there and its head is sound;
// then the whole of it is passed over whether its content is sound or not, so that a file of many
// heads costs no more than one of few.
//
// Behind the newest record there may be sound ones that are older than the ring is long: at the
// very end, where the last round had no room. They are left out, as what came between them and the
// rest is gone.

#include "rv/recording/RecordingReader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "rv/message/FieldCheck.h"
#include "rv/message/SubjectIndex.h"
#include "rv/recording/RecordFormat.h"

namespace kvx::recording {
namespace {

constexpr std::size_t kWindow = 1U << 20U;  // bytes read at a time
// A record with names, a subject and a whole message.
constexpr std::uint64_t kMostRecordBytes = kMaxMessageBytes + 4'096;

std::string_view textAt(const std::uint8_t* at, std::size_t count) {
    return {reinterpret_cast<const char*>(at), count};
}

}  // namespace

bool isWholeMessage(const Entry& entry) {
    return entry.message.size() == entry.messageSize &&
           checkMessage(entry.message, kMaxLinkNesting, [](const WireField&) {}) == 0;
}

bool isOn(const Entry& entry, SubjectView pattern) {
    return covers(pattern, entry.subject);
}

RecordingReader::RecordingReader(const std::string& path) {
    problem_ = open(path);
}

std::uint64_t RecordingReader::end() {
    findNewest();
    return end_;
}

void RecordingReader::findNewest() {
    if (std::exchange(hasLooked_, true)) return;
    std::uint64_t newest = 0;
    while (const auto found = find(available_)) {
        if (!entryOf(*found) || found->position + found->record.size() <= end_) continue;
        newest = at_;
        end_ = found->position + found->record.size();
    }
    at_ = newest;
    nextFrom_ = end_ > capacity_ ? end_ - capacity_ : 0;
}

std::string RecordingReader::open(const std::string& path) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (status.type() == std::filesystem::file_type::not_found) return "there is no such file";
    if (error) return error.message();
    // Others, such as pipes, might never end.
    if (status.type() != std::filesystem::file_type::regular) return "it is no regular file";
    errno = 0;
    file_.open(path, std::ios::binary);
    if (!file_) return std::generic_category().message(errno != 0 ? errno : EIO);
    std::array<char, kFileHeadBytes> head{};
    file_.read(head.data(), head.size());
    if (file_.gcount() != static_cast<std::streamsize>(head.size()) ||
        !std::string_view(head.data(), head.size()).starts_with(kMagic)) {
        return "it is no recording";
    }
    capacity_ = loadBig64(head.data() + kAtCapacity);
    seed_ = loadBig64(head.data() + kAtSeed);
    process_ = loadBig64(head.data() + kAtProcess);
    if (capacity_ < kLeastCapacity || capacity_ > kMostCapacity || capacity_ % kUnit != 0) {
        return "it is no recording of a size that exists";
    }
    const std::uint64_t size = std::filesystem::file_size(path, error);
    if (error) return error.message();
    available_ = std::min(capacity_, size - std::min<std::uint64_t>(size, kFileHeadBytes));
    return {};
}

// Fewer than `bytes` where the file ends.
std::span<const std::uint8_t> RecordingReader::view(std::uint64_t offset, std::size_t bytes) {
    const bool isThere = offset >= windowAt_ && offset + bytes <= windowAt_ + window_.size();
    if (!isThere) {
        const std::uint64_t wanted = std::max<std::uint64_t>(bytes, kWindow);
        window_.resize(static_cast<std::size_t>(std::min(wanted, available_ - offset)));
        windowAt_ = offset;
        file_.clear();
        file_.seekg(static_cast<std::streamoff>(kFileHeadBytes + offset));
        file_.read(reinterpret_cast<char*>(window_.data()),
                   static_cast<std::streamsize>(window_.size()));
        window_.resize(static_cast<std::size_t>(std::max<std::streamsize>(file_.gcount(), 0)));
    }
    const auto begin = static_cast<std::size_t>(offset - windowAt_);
    return std::span(window_).subspan(begin, std::min(bytes, window_.size() - begin));
}

// The next place, from `at_` to `until`, that has a sound head; `at_` is behind it then.
std::optional<RecordingReader::Found> RecordingReader::find(std::uint64_t until) {
    for (; at_ + kRecordHeadBytes <= until; at_ += kUnit) {
        const auto head = view(at_, kRecordHeadBytes);
        if (head.size() < kRecordHeadBytes) break;
        const std::uint64_t position = loadBig64(head.data() + kAtPosition);
        const std::uint32_t length = loadBig32(head.data() + kAtLength);
        const bool isHead =
            position % capacity_ == at_ && length >= kRecordHeadBytes &&
            length <= kMostRecordBytes && padded(length) <= available_ - at_ &&
            position <= ~std::uint64_t{0} - kMostCapacity &&
            loadBig32(head.data() + kAtHeadCheck) == headCheck(seed_, position, length);
        if (!isHead) continue;
        const auto record = view(at_, static_cast<std::size_t>(padded(length)));
        at_ += padded(length);
        return Found{position, record};
    }
    at_ = until;
    return std::nullopt;
}

std::optional<Entry> RecordingReader::entryOf(const Found& found) const {
    const auto record = found.record;
    if (record.size() < kRecordHeadBytes) return std::nullopt;  // the file was cut meanwhile
    const std::uint8_t* const head = record.data();
    const std::size_t length = loadBig32(head + kAtLength);
    if (record.size() != padded(length)) return std::nullopt;
    const std::array<std::size_t, 3> names = {loadBig16(head + kAtSubjectSize),
                                              head[kAtServiceSize], head[kAtNetworkSize]};
    Check check(seed_, found.position);
    check.take(head + kAtTime, kRecordHeadBytes - kAtTime);
    std::array<const std::uint8_t*, 3> texts{};
    std::size_t at = kRecordHeadBytes;
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto size = static_cast<std::size_t>(padded(names[i]));
        if (size > record.size() - at) return std::nullopt;
        texts[i] = head + at;
        check.take(texts[i], size);
        at += size;
    }
    check.take(head + at, record.size() - at);
    if (at > length || check.value() != loadBig64(head + kAtCheck)) return std::nullopt;
    const auto subject = SubjectView::parse(texts[0], names[0]);
    const std::uint32_t messageSize = loadBig32(head + kAtMessageSize);
    if (!subject || subject->length() != names[0] || messageSize < length - at) return std::nullopt;
    return Entry{loadBig64(head + kAtTime),
                 loadBig64(head + kAtSession),
                 textAt(texts[1], names[1]),
                 textAt(texts[2], names[2]),
                 *subject,
                 record.subspan(at, length - at),
                 messageSize};
}

std::optional<Entry> RecordingReader::next() {
    if (end() == 0) return std::nullopt;
    const std::uint64_t newestEnd = (end_ - 1) % capacity_ + 1;
    for (;;) {
        const auto found = find(hasTurned_ ? std::min(newestEnd, available_) : available_);
        if (!found) {
            if (std::exchange(hasTurned_, true)) return std::nullopt;
            at_ = 0;
            continue;
        }
        const bool isNext = found->position >= nextFrom_ && found->position < end_;
        if (!isNext) continue;
        const auto entry = entryOf(*found);
        if (!entry) {
            ++damaged_;
            continue;
        }
        nextFrom_ = found->position + found->record.size();
        return entry;
    }
}

}  // namespace kvx::recording
