#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/Export.h"

namespace kvx {

inline constexpr unsigned kSubjectHeaderBytes = 3;       // length and count
inline constexpr unsigned kSubjectElementExtra = 2;      // length byte and terminator
inline constexpr unsigned kMaxSubjectBytes = 1000;       // of an encoded subject
inline constexpr unsigned kMaxSubjectElements = 102;     // of one subject
inline constexpr unsigned kMaxSubjectElementText = 250;  // characters of one element

inline constexpr std::string_view kInboxElement = "_INBOX";    // first element of private subjects
inline constexpr std::string_view kReservedElement = "_RV";    // first element of advisories
inline constexpr std::string_view kAnyElement = "*";           // wildcard: exactly one element
inline constexpr std::string_view kAnyTrailingElements = ">";  // wildcard: one or more at the end

/// An encoded subject that is known to be well formed: 1 to 102 elements of 1 to 250 characters,
/// none of them a full stop or zero, together at most 1,000 bytes. Borrows the bytes. Any thread.
class KVX_API SubjectView {
  public:
    /// Checks untrusted bytes. `available` is the number of bytes that may be read at `encoded`;
    /// the subject's length word must not exceed it. Nothing for an invalid or empty subject.
    static std::optional<SubjectView> parse(const void* encoded, std::size_t available);

    /// Wraps a subject from `rvSubject_FromText` or one that `parse` has accepted.
    static SubjectView trusted(const void* encoded) {
        return SubjectView(static_cast<const std::uint8_t*>(encoded));
    }

    const void* data() const { return bytes_; }
    unsigned length() const { return static_cast<unsigned>(bytes_[0]) << 8U | bytes_[1]; }
    /// The encoded form.
    std::span<const std::uint8_t> bytes() const { return {bytes_, length()}; }
    std::string_view encoded() const { return {reinterpret_cast<const char*>(bytes_), length()}; }
    unsigned count() const { return bytes_[2]; }
    std::string_view first() const { return Iterator{bytes_ + kSubjectHeaderBytes}.operator*(); }
    /// Element `i`, counted from 0 and below `count()`.
    std::string_view operator[](unsigned i) const;
    /// True when the last element is ">" or any is "*". A ">" before the last position is an
    /// ordinary element.
    bool hasWildcards() const;
    std::string text() const;

    class Iterator {
      public:
        explicit Iterator(const std::uint8_t* record) : record_(record) {}
        std::string_view operator*() const {
            return {reinterpret_cast<const char*>(record_ + 1),
                    record_[0] - std::size_t{kSubjectElementExtra}};
        }
        Iterator& operator++() {
            record_ += record_[0];
            return *this;
        }
        bool operator==(const Iterator&) const = default;

      private:
        const std::uint8_t* record_;
    };
    Iterator begin() const { return Iterator(bytes_ + kSubjectHeaderBytes); }
    Iterator end() const { return Iterator(bytes_ + length()); }

  private:
    explicit SubjectView(const std::uint8_t* bytes) : bytes_(bytes) {}
    const std::uint8_t* bytes_;
};

/// An encoded subject that owns its bytes.
class KVX_API Subject {
  public:
    /// Nothing when `text` is not a subject or its encoded form exceeds `capacity` bytes.
    static std::optional<Subject> fromText(const char* text, unsigned capacity = kMaxSubjectBytes);
    explicit Subject(SubjectView view);

    SubjectView view() const { return SubjectView::trusted(bytes_.data()); }
    operator SubjectView() const { return view(); }

  private:
    explicit Subject(std::string bytes) : bytes_(std::move(bytes)) {}
    std::string bytes_;
};

}  // namespace kvx
