// A reader of the one shape that a record has: an array of [name, value] pairs. A general
// MessagePack parser reports a positive number without its width, and so cannot tell a 64-bit atom
// from a 32-bit one; it would also build trees that this shape does not need. Nothing recurses, no
// length is trusted beyond the remaining bytes, and the first error is final.

#include "foundation/RecordDecoder.h"

#include <limits>
#include <utility>

#include "foundation/RecordEncoder.h"

namespace kvx {

namespace {

// The head bytes of the format, as far as a record uses them.
constexpr unsigned char kFixArray = 0x90;
constexpr unsigned char kFixStr = 0xA0;
constexpr unsigned char kBin8 = 0xC4;
constexpr unsigned char kBin32 = 0xC6;
constexpr unsigned char kUint8 = 0xCC;
constexpr unsigned char kUint32 = 0xCE;
constexpr unsigned char kInt8 = 0xD0;
constexpr unsigned char kInt64 = 0xD3;
constexpr unsigned char kStr8 = 0xD9;
constexpr unsigned char kStr32 = 0xDB;
constexpr unsigned char kArray16 = 0xDC;
constexpr unsigned char kArray32 = 0xDD;
constexpr unsigned char kLastPositiveFixInt = 0x7F;
constexpr unsigned char kFirstNegativeFixInt = 0xE0;

// An array head, an empty name and a value of one byte.
constexpr std::size_t kSmallestField = 3;

bool isWithin(unsigned char head, unsigned char first, unsigned char last) {
    return head >= first && head <= last;
}

// The forms of a kind follow one another with widths of 1, 2, 4 and 8 bytes.
std::size_t widthOf(unsigned char head, unsigned char first) {
    return std::size_t{1} << static_cast<unsigned>(head - first);
}

std::int64_t signExtended(std::uint64_t number, std::size_t width) {
    const auto shift = static_cast<unsigned>(64 - 8 * width);
    return static_cast<std::int64_t>(number << shift) >> shift;
}

}  // namespace

RecordDecoder::RecordDecoder(std::span<const unsigned char> bytes) : rest_(bytes) {
    const std::size_t fields = arrayLength();
    if (fields > kMostRecordFields || fields > rest_.size() / kSmallestField) {
        failed_ = true;
    } else {
        fieldsAhead_ = fields;
    }
}

std::optional<RecordDecoder::Field> RecordDecoder::next() {
    if (failed_ || fieldsAhead_ == 0) return std::nullopt;
    failed_ = arrayLength() != 2 || failed_;
    Field field;
    if (!failed_) field.name = text();
    if (!failed_) field.value = value();
    if (failed_) return std::nullopt;
    --fieldsAhead_;
    return field;
}

std::uint64_t RecordDecoder::number(std::size_t width) {
    std::uint64_t number = 0;
    for (const unsigned char byte : bytes(width)) number = number << 8U | byte;
    return number;
}

std::span<const unsigned char> RecordDecoder::bytes(std::uint64_t length) {
    if (length > rest_.size()) {
        failed_ = true;
        return {};
    }
    const auto taken = rest_.first(length);
    rest_ = rest_.subspan(length);
    return taken;
}

std::size_t RecordDecoder::arrayLength() {
    const auto head = static_cast<unsigned char>(number(1));
    if (isWithin(head, kFixArray, kFixArray + 15)) return head - kFixArray;
    if (isWithin(head, kArray16, kArray32)) return number(2 * widthOf(head, kArray16));
    failed_ = true;
    return 0;
}

std::string_view RecordDecoder::text() {
    const auto head = static_cast<unsigned char>(number(1));
    if (isWithin(head, kFixStr, kFixStr + 31)) return textOfLength(head - kFixStr);
    if (isWithin(head, kStr8, kStr32)) return textOfLength(number(widthOf(head, kStr8)));
    failed_ = true;
    return {};
}

// Names and texts are C strings in the record, so a zero byte inside would cut them short.
std::string_view RecordDecoder::textOfLength(std::uint64_t length) {
    const auto taken = bytes(length);
    const std::string_view text(reinterpret_cast<const char*>(taken.data()), taken.size());
    failed_ = failed_ || text.find('\0') != std::string_view::npos;
    return text;
}

std::unique_ptr<const CVekAtom> RecordDecoder::value() {
    if (rest_.empty()) {
        failed_ = true;
        return nullptr;
    }
    const unsigned char head = rest_.front();
    if (isWithin(head, kFixStr, kFixStr + 31) || isWithin(head, kStr8, kStr32)) {
        const std::string_view read = text();
        return failed_ ? nullptr : std::make_unique<const CVekAtom>(read);
    }
    rest_ = rest_.subspan(1);
    if (!isWithin(head, kBin8, kBin32)) return integer(head);
    const auto read = bytes(number(widthOf(head, kBin8)));
    if (failed_) return nullptr;
    return std::make_unique<const CVekAtom>(read.data(), static_cast<int>(read.size()));
}

std::unique_ptr<const CVekAtom> RecordDecoder::integer(unsigned char form) {
    std::int64_t read = 0;
    if (form <= kLastPositiveFixInt) {
        read = form;
    } else if (form >= kFirstNegativeFixInt) {
        read = signExtended(form, 1);
    } else if (isWithin(form, kUint8, kUint32)) {
        read = static_cast<std::int64_t>(number(widthOf(form, kUint8)));
    } else if (isWithin(form, kInt8, kInt64)) {
        const std::size_t width = widthOf(form, kInt8);
        read = signExtended(number(width), width);
    } else {
        failed_ = true;
    }
    if (form == kInt64) return std::make_unique<const CVekAtom>(static_cast<long long>(read));
    failed_ = failed_ || read > std::numeric_limits<int>::max();
    return failed_ ? nullptr : std::make_unique<const CVekAtom>(static_cast<int>(read));
}

}  // namespace kvx
