// The file is read twice: once from its start for the newest message, then, as a ring, from what
// follows that one. A place begins a run when its position belongs there and its check is right;
// within a run, a place is a message when the check of its head is right; then the whole of it is
// passed over whether its content is sound or not, so that a file of many heads costs no more than
// one of few.
//
// Behind the newest message there may be sound ones that are older than the ring is long: at the
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
// What follows the head of a message.
constexpr std::uint64_t kMostContentBytes = kMaxMessageBytes + 4'096;

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
        if (!entryOf(*found) || found->position + found->bytes.size() <= end_) continue;
        newest = at_;
        end_ = found->position + found->bytes.size();
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

// The next message, from `at_` to `until`, that has a sound head; `at_` is behind it then.
std::optional<RecordingReader::Found> RecordingReader::find(std::uint64_t until) {
    while (at_ + kMessageHeadBytes <= until) {
        if (const auto found = messageAt()) return found;
        if (!beginsRun()) at_ += kUnit;
    }
    at_ = until;
    return std::nullopt;
}

// The message of the last run that is at `at_`, which is behind it then.
std::optional<RecordingReader::Found> RecordingReader::messageAt() {
    const bool isInRun = hasRun_ && at_ > runAt_ && at_ - runAt_ < runBytes(capacity_);
    if (!isInRun) return std::nullopt;
    const auto head = view(at_, kMessageHeadBytes);
    if (head.size() < kMessageHeadBytes) return std::nullopt;
    const std::uint64_t numbers = loadBig64(head.data() + kAtLength);
    const std::uint64_t position = runPosition_ + (at_ - runAt_);
    const std::uint64_t length = numbers >> 32U & ~std::uint64_t{kIsPart};
    const std::uint64_t whole = kMessageHeadBytes + padded(length);
    const bool isHead = length <= kMostContentBytes && whole <= available_ - at_ &&
                        loadBig32(head.data() + kAtHeadCheck) == headCheck(run_, position, numbers);
    if (!isHead) return std::nullopt;
    const auto bytes = view(at_, static_cast<std::size_t>(whole));
    at_ += whole;
    return Found{position, bytes};
}

// Whether a run begins at `at_`, which is behind its head then.
bool RecordingReader::beginsRun() {
    const auto fixed = view(at_, kAtNames);
    if (fixed.size() < kAtNames) return false;
    const std::uint64_t position = loadBig64(fixed.data() + kAtPosition);
    if (position % capacity_ != at_ || position > ~std::uint64_t{0} - kMostCapacity) return false;
    const std::size_t serviceSize = fixed[kAtServiceSize];
    const std::size_t networkSize = fixed[kAtNetworkSize];
    const auto size = static_cast<std::size_t>(runHeadBytes(serviceSize, networkSize));
    const auto head = view(at_, size);
    if (head.size() < size) return false;
    Check check(seed_, position);
    check.take(head.data() + kAtTime, size - kAtTime);
    if (check.value() != loadBig64(head.data() + kAtRunCheck)) return false;
    run_ = check.value();
    names_.assign(reinterpret_cast<const char*>(head.data()) + kAtNames, serviceSize + networkSize);
    origin_ = {loadBig64(head.data() + kAtTime), loadBig64(head.data() + kAtSession),
               std::string_view(names_).substr(0, serviceSize),
               std::string_view(names_).substr(serviceSize)};
    hasRun_ = true;
    runAt_ = at_;
    runPosition_ = position;
    at_ += size;
    return true;
}

std::optional<Entry> RecordingReader::entryOf(const Found& found) const {
    if (found.bytes.size() < kMessageHeadBytes) return std::nullopt;  // the file was cut meanwhile
    const std::uint8_t* const head = found.bytes.data();
    const std::uint32_t kind = loadBig32(head + kAtLength);
    const std::size_t length = kind & ~kIsPart;
    const std::size_t subjectAt = loadBig32(head + kAtSubject);
    if (found.bytes.size() != kMessageHeadBytes + padded(length)) return std::nullopt;
    Check check(run_, found.position);
    check.take(head + kMessageHeadBytes, found.bytes.size() - kMessageHeadBytes);
    if (check.shortValue() != loadBig32(head + kAtContentCheck)) return std::nullopt;
    const auto content = found.bytes.subspan(kMessageHeadBytes, length);
    if (subjectAt >= length) return std::nullopt;
    const auto subject = SubjectView::parse(content.data() + subjectAt, length - subjectAt);
    if (!subject) return std::nullopt;
    if ((kind & kIsPart) == 0) {
        return Entry{origin_, *subject, content, static_cast<std::uint32_t>(length)};
    }
    const std::uint64_t before = kPartHeadBytes + padded(subject->length());
    if (subjectAt != kPartHeadBytes || before > length) return std::nullopt;
    const auto message = content.subspan(static_cast<std::size_t>(before));
    const std::uint32_t size = loadBig32(content.data());
    if (size < message.size()) return std::nullopt;
    return Entry{origin_, *subject, message, size};
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
        nextFrom_ = found->position + found->bytes.size();
        return entry;
    }
}

}  // namespace kvx::recording
